// Calls each of the daemon's 24 methods through the client functions and prints what each returned,
// byte by byte: wire_client. Two builds of it that print the same have one wire format.
//
// Every field of every record gets a value of its own. What no two runs have alike, UUIDs and the
// times of failed logins, is checked here and printed as zeros.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "zorv_api_db.h"
#include "zorv_api_mobile.h"

namespace {

constexpr int kServerRecords = 20;  // a page of them is larger than a packet

// Values that no other field has, with all eight bytes in use.
record_int64 next_value() {
  static record_int64 value = 0x0102030405060708;
  value += 0x0101010101010101 / 4;
  return value & 0x7fffffffffffffff;
}

template <size_t Size>
void fill(char (&field)[Size], std::string_view name, int number) {
  std::memset(field, 0, Size);
  const std::string text = std::string(name) + "-" + std::to_string(number) + "-\xc3\xbc'%s";
  text.copy(field, Size - 1);
}

// The longest text that a field holds.
template <size_t Size>
void fill_whole(char (&field)[Size], char letter) {
  std::memset(field, letter, Size - 1);
  field[Size - 1] = '\0';
}

void print(const char* what, int status, const void* bytes = nullptr, size_t size = 0) {
  std::printf("%s %d ", what, status);
  for (size_t i = 0; i < size; ++i) {
    std::printf("%02x", static_cast<const unsigned char*>(bytes)[i]);
  }
  std::printf("\n");
}

template <class Query>
void print_list(const char* what, int (*list)(db_query_cond*, Query**), db_query_cond cond,
                void (*settle)(typename Query::record_type&) = nullptr) {
  using Record = typename Query::record_type;
  Query query{};
  Query* result = &query;
  const int status = list(&cond, &result);
  const std::unique_ptr<Record, decltype(&std::free)> rows(query.data, std::free);
  print(what, status, &query, offsetof(Query, data));
  for (size_t i = 0; i < query.count; ++i) {
    if (settle != nullptr) {
      settle(query.data[i]);
    }
    print("  row", 0, &query.data[i], sizeof(Record));
  }
}

db_query_cond page(record_int64 start, record_int64 count, record_int64 order_style,
                   std::string_view field = "", std::string_view value = "") {
  db_query_cond cond{};
  cond.start = start;
  cond.count = count;
  cond.order_style = order_style;
  field.copy(cond.field, sizeof cond.field - 1);
  value.copy(cond.value, sizeof cond.value - 1);
  return cond;
}

void call_server_log() {
  for (int i = 0; i < kServerRecords; ++i) {
    db_conn_server_log record{};
    fill(record.username, "user", i);
    record.vpn_type = 4;
    record.uptime = static_cast<record_uint64>(next_value());
    record.time = 2147483648ULL * static_cast<unsigned>(i);
    fill(record.device_info, "device", i);
    fill_whole(record.source_ip, static_cast<char>('a' + i));
    fill(record.vpn_ip, "vpn", i);
    record.tx_rate = next_value();
    record.rx_rate = -next_value();
    record.tx_total = next_value();
    record.rx_total = next_value();
    fill(record.outgoing, "outgoing", i);
    record.action = 2 + i % 2;
    print("add_conn_server_log", add_conn_server_log(&record));
  }
  print_list("list_conn_server_log", list_conn_server_log, page(0, -1, 0));
  print_list("list_conn_server_log", list_conn_server_log, page(1, 2, 1));
  print_list("list_conn_server_log", list_conn_server_log,
             page(0, 5, 0, "username", "user-3-\xc3\xbc'%s"));
  db_delete_cond which{2};
  print("delete_conn_server_log", delete_conn_server_log(&which));
  print_list("list_conn_server_log", list_conn_server_log, page(0, 2, 0));
  print("clean_conn_server_log", clean_conn_server_log());
}

void call_client_log() {
  for (int i = 0; i < 2; ++i) {
    db_conn_client_log_data record{};
    fill_whole(record.username, 'u');
    record.vpn_type = 0x400 << i;
    record.uptime = static_cast<record_uint64>(next_value());
    record.time = static_cast<record_uint64>(next_value());
    fill(record.vpn_ip, "vpn", i);
    record.tx_rate = next_value();
    record.rx_rate = next_value();
    record.tx_total = next_value();
    record.rx_total = -next_value();
    std::memcpy(record.country_code, "DE", 3);
    fill_whole(record.wan_ip, 'w');
    record.action = 3;
    print("add_conn_client_log", add_conn_client_log(&record));
  }
  print_list("list_conn_client_log", list_conn_client_log, page(0, -1, 0));
  db_delete_cond which{1};
  print("delete_conn_client_log", delete_conn_client_log(&which));
  print_list("list_conn_client_log", list_conn_client_log, page(0, -1, 0));
  print("clean_conn_client_log", clean_conn_client_log());
}

void call_events() {
  db_event_data event;
  print("add_event_data", add_event_data(&event));
  print_list("list_event_data", list_event_data, page(0, -1, 0));
}

void call_server_list() {
  for (int i = 0; i < 2; ++i) {
    db_server_list_data record{};
    fill(record.uuid, "uuid", i);
    fill_whole(record.username, 'u');
    fill(record.sid, "sid", i);
    fill_whole(record.device_name, 'n');
    record.expire_time = static_cast<record_uint64>(next_value());
    record.time = static_cast<record_uint64>(next_value());
    print("add_server_list", add_server_list(&record));
  }
  print_list("list_server_list", list_server_list, page(0, -1, 1));
  db_delete_cond which{1};
  print("delete_server_list", delete_server_list(&which));
  print_list("list_server_list", list_server_list, page(0, -1, 0));
  print("clean_server_list", clean_server_list());
}

zorv_mobile_gen_uuid_data_get device_uuid;

void call_device_info() {
  db_device_info_data record{};
  fill(record.ip, "ip", 1);
  fill(record.mac, "mac", 1);
  fill_whole(record.hoxsid, 'h');
  fill(record.user_id, "user_id", 1);
  fill(record.dev_name, "dev_name", 1);
  fill(record.dev_uuid, "dev_uuid", 1);
  fill_whole(record.nic, 'n');
  record.time = static_cast<record_uint64>(next_value());
  print("add_device_info", add_device_info(&record, &device_uuid));
  print_list("list_device_info", list_device_info, page(0, -1, 0), [](db_device_info_data& row) {
    if (std::strcmp(row.dev_uuid, device_uuid.zorv_uuid) == 0) {
      std::memset(row.dev_uuid, 0, std::strlen(row.dev_uuid));
    }
  });
  db_delete_cond which{1};
  print("delete_device_info", delete_device_info(&which));
  print("clean_device_info", clean_device_info());
}

void call_uuid() {
  zorv_mobile_gen_uuid_data_set kind{0x01020304};
  zorv_mobile_gen_uuid_data_get uuid{};
  zorv_mobile_gen_uuid_data_get* result = &uuid;
  const int status = zorv_mobile_gen_zorv_uuid(&kind, &result);
  std::memset(uuid.zorv_uuid, 0, std::strspn(uuid.zorv_uuid, "0123456789abcdef"));
  print("zorv_mobile_gen_zorv_uuid", status, &uuid, sizeof uuid);
}

void call_block() {
  char name[] = "mallory \xc3\xbc'%s";
  print("check_privilege_user_block", check_privilege_user_block(name));
  print("add_privilege_user_block", add_privilege_user_block(name));
  print("add_privilege_user_block", add_privilege_user_block(name));
  print("check_privilege_user_block", check_privilege_user_block(name));
  print_list("list_privilege_user_block", list_privilege_user_block, page(0, -1, 0),
             [](db_privilege_user_block_data& row) {
               const auto now = static_cast<record_uint64>(std::time(nullptr));
               if (row.timestamp <= now && now - row.timestamp < 3600) {
                 row.timestamp = 0;
               }
             });
  print("delete_privilege_user_block", delete_privilege_user_block(name));
  print("check_privilege_user_block", check_privilege_user_block(name));
  print("clean_privilege_user_block", clean_privilege_user_block());
}

}  // namespace

int main() {
  call_server_log();
  call_client_log();
  call_events();
  call_server_list();
  call_device_info();
  call_uuid();
  call_block();
  return 0;
}
