#include "zorvd_db.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

#include "logger.h"
#include "zorvd_mobile.h"
#include "zorvd_tables.h"

using zorv::kClientLog;
using zorv::kDeviceInfo;
using zorv::kEventLog;
using zorv::kServerList;
using zorv::kServerLog;
using zorv::kUserBlock;

namespace {

LogModule log_module{"zorvd_db"};

// The steps that handlers share. Each ends a request one way: replied() or failed().

int replied(kx_io* io) {
  kx_reply(io);
  return 0;
}

int failed(const LogSite& site, kx_io* io, const char* call) {
  ZORV_LOG_AT(site, debug, "%s fail\n", call);
  kx_io_free(io);
  return -1;
}

int answer_empty(const LogSite& site, kx_io* io, int result, const char* call) {
  if (result != 0) {
    return failed(site, io, call);
  }
  kx_io_realloc(io, 0);
  return replied(io);
}

// The record that the caller sent; without a payload the request has failed. A short payload is a
// record with zeros behind it, a long one is cut.
template <class Record>
std::optional<Record> request(const LogSite& site, kx_io* io) {
  size_t length = 0;
  const void* const payload = kx_io_read(io, &length);
  if (payload == nullptr) {
    ZORV_LOG_AT(site, error, "%s: kx_io_read returned NULL\n", site.function);
    kx_io_free(io);
    return std::nullopt;
  }
  Record record{};
  std::memcpy(&record, payload, std::min(length, sizeof record));
  return record;
}

// A user name is text: it ends at its first zero byte, or with the payload. None is the empty one.
std::string username_of(kx_io* io) {
  size_t length = 0;
  const auto* payload = static_cast<const char*>(kx_io_read(io, &length));
  return payload != nullptr ? std::string(payload, strnlen(payload, length)) : std::string();
}

// The rows of an answer, which go into the reply a block at a time: 520 MB exist once.
class ReplyRows final : public store::RowSpace {
 public:
  static constexpr size_t kBlock = 60 << 10;  // the bus gathers up to 64 KiB in one packet

  explicit ReplyRows(kx_io* io) : io_(io) {}

  void* next(size_t size) override {
    if (size > sizeof block_ - used_ && !write_out()) {
      return nullptr;
    }
    char* space = block_ + used_;
    used_ += size;
    return memset(space, 0, size);
  }

  // What the block still holds; false when the reply has no room for it.
  bool write_out() {
    const bool written = kx_io_write(io_, block_, used_) == KX_SUCCESS;
    used_ = 0;
    return written;
  }

 private:
  kx_io* io_;
  size_t used_ = 0;
  alignas(8) char block_[kBlock];
};

template <class Record>
int handle_insert(const LogSite& site, kx_io* io, int (*insert)(Record*), const char* call) {
  auto record = request<Record>(site, io);
  return record ? answer_empty(site, io, insert(&*record), call) : -1;
}

using Select = int (*)(const db_query_cond& cond, store::RowSpace& space, store::RowCounts& counts);

template <const zorv::TableSchema& Schema>
int select(const db_query_cond& cond, store::RowSpace& space, store::RowCounts& ret_counts) {
  return store::select_rows(store::table_of(Schema), cond, space, ret_counts);
}

int handle_query(const LogSite& site, kx_io* io, Select select_page, const char* announcement,
                 const char* call) {
  const auto cond = request<db_query_cond>(site, io);
  if (!cond) {
    return -1;
  }
  ZORV_LOG_AT(site, debug, "%s\n", announcement);
  // The head is only known behind the rows, so its place is kept.
  constexpr char kHead[kQueryHeaderSize] = {};
  kx_io_realloc(io, 0);
  if (kx_io_write(io, kHead, sizeof kHead) != KX_SUCCESS) {
    return failed(site, io, "kx_io_write (io)");
  }
  ReplyRows rows(io);
  store::RowCounts counts;
  if (select_page(*cond, rows, counts) != 0 || !rows.write_out()) {
    return failed(site, io, call);
  }
  ZORV_LOG_AT(site, debug, "count = %llu\n", counts.count);
  if (kx_io_overwrite(io, 0, &counts, sizeof counts) != KX_SUCCESS) {
    return failed(site, io, "kx_io_write (io)");
  }
  return replied(io);
}

int handle_delete(const LogSite& site, kx_io* io, int (*remove)(const db_delete_cond*),
                  const char* call) {
  const auto cond = request<db_delete_cond>(site, io);
  return cond ? answer_empty(site, io, remove(&*cond), call) : -1;
}

}  // namespace

int db_conn_insert_handler(kx_io* io) {
  ZORV_LOG(info, "db_conn_server_log\n");
  return handle_insert(ZORV_HERE, io, store::insert_conn_server_log,
                       "insert_conn_server_log (&db_con)");
}

int db_conn_server_log_query_handler(kx_io* io) {
  ZORV_LOG(debug, "db_conn_server_log_query_imp\n");
  return handle_query(ZORV_HERE, io, select<kServerLog>, "select_conn_server_log()",
                      "select_conn_server_log (&cond, &con)");
}

int db_conn_server_delete_handler(kx_io* io) {
  ZORV_LOG(info, "db_conn_server_del_handler\n");
  return handle_delete(ZORV_HERE, io, store::delete_conn_server_log,
                       "delete_conn_server_log (&cond)");
}

int db_conn_server_clean_handler(kx_io* io) {
  ZORV_LOG(info, "db_conn_server_clean_handler\n");
  return answer_empty(ZORV_HERE, io, store::clean_conn_server_log(), "clean_conn_server_log ()");
}

int db_conn_client_log_insert_handler(kx_io* io) {
  ZORV_LOG(info, "db_client_conn_server_log\n");
  return handle_insert(ZORV_HERE, io, store::insert_conn_client_log,
                       "insert_conn_client_log (&db_con)");
}

int db_conn_client_log_query_handler(kx_io* io) {
  ZORV_LOG(debug, "db_conn_client_log_query_imp\n");
  return handle_query(ZORV_HERE, io, select<kClientLog>, "select_conn_client_log()",
                      "select_conn_client_log (&cond, &con)");
}

int db_conn_client_delete_handler(kx_io* io) {
  ZORV_LOG(info, "db_conn_client_delete_handler\n");
  return handle_delete(ZORV_HERE, io, store::delete_conn_client_log,
                       "delete_conn_client_log (&cond)");
}

int db_conn_client_clean_handler(kx_io* io) {
  ZORV_LOG(info, "db_conn_client_clean_handler\n");
  return answer_empty(ZORV_HERE, io, store::clean_conn_client_log(), "clean_conn_client_log ()");
}

int db_event_insert_handler(kx_io* io) {
  ZORV_LOG(info, "db_event_data\n");
  return handle_insert(ZORV_HERE, io, store::insert_event_data, "insert_event_data (&db_con)");
}

int db_event_query_handler(kx_io* io) {
  ZORV_LOG(debug, "db_event_query_imp\n");
  return handle_query(ZORV_HERE, io, store::select_event_data, "select_event_data()",
                      "select_event_data (&cond, &data)");
}

int db_server_list_insert_handler(kx_io* io) {
  ZORV_LOG(info, "db_server_list_data\n");
  return handle_insert(ZORV_HERE, io, store::insert_server_list, "insert_server_list (&db_con)");
}

int db_server_list_query_handler(kx_io* io) {
  ZORV_LOG(debug, "db_server_list_query_imp\n");
  return handle_query(ZORV_HERE, io, select<kServerList>, "select_server_list()",
                      "select_server_list (&cond, &data)");
}

int db_server_list_delete_handler(kx_io* io) {
  ZORV_LOG(info, "db_server_list_delete_handler\n");
  return handle_delete(ZORV_HERE, io, store::delete_server_list, "delete_server_list (&cond)");
}

int db_server_list_clean_handler(kx_io* io) {
  ZORV_LOG(info, "db_server_list_clean_handler\n");
  return answer_empty(ZORV_HERE, io, store::clean_server_list(), "clean_server_list ()");
}

int db_device_info_insert_handler(kx_io* io) {
  ZORV_LOG(info, "db_device_info_data\n");
  auto record = request<db_device_info_data>(ZORV_HERE, io);
  if (!record) {
    return -1;
  }
  zorv_mobile_gen_uuid_data_get answer{};
  if (zorv_uuid_gen(answer.zorv_uuid) != 0) {
    ZORV_LOG(debug, "zorv_uuid_gen failed\n");
  }
  // What the caller named as UUID is never looked at.
  zorv::copy_text(record->dev_uuid, answer.zorv_uuid);
  const store::Operation whole_request;
  if (store::insert_device_info(&*record) != 0) {
    return failed(ZORV_HERE, io, "insert_device_info (&db_con)");
  }

  // The table may have kept an older UUID: read it back.
  db_query_cond cond{};
  cond.count = 1;
  zorv::copy_text(cond.field, kDeviceInfo.unique->name);
  zorv::copy_text(cond.value, record->mac);
  store::RowArray rows;
  store::RowCounts counts;
  if (select<kDeviceInfo>(cond, rows, counts) != 0) {
    return failed(ZORV_HERE, io, "select_device_info (&cond, &data)");
  }
  ZORV_LOG(debug, "get count = %llu\n", counts.count);
  answer = {};
  if (counts.count != 0) {
    const auto& kept = *static_cast<const db_device_info_data*>(rows.first());
    ZORV_LOG(debug, "get uuid = %s\n", kept.dev_uuid);
    ZORV_LOG(debug, "id = %lld\n", kept.id);
    zorv::copy_text(answer.zorv_uuid, kept.dev_uuid);
  }
  kx_io_realloc(io, 0);
  kx_io_write(io, &answer, sizeof answer);
  return replied(io);
}

int db_device_info_query_handler(kx_io* io) {
  ZORV_LOG(debug, "db_device_info_query_imp\n");
  return handle_query(ZORV_HERE, io, select<kDeviceInfo>, "select_device_info()",
                      "select_device_info (&cond, &data)");
}

int db_device_info_delete_handler(kx_io* io) {
  ZORV_LOG(info, "db_device_info_delete_handler\n");
  return handle_delete(ZORV_HERE, io, store::delete_device_info, "delete_device_info (&cond)");
}

int db_device_info_clean_handler(kx_io* io) {
  ZORV_LOG(info, "db_device_info_clean_handler\n");
  return answer_empty(ZORV_HERE, io, store::clean_device_info(), "clean_device_info ()");
}

int db_privilege_user_block_insert_handler(kx_io* io) {
  ZORV_LOG(info, "db_privilege_user_block\n");
  return answer_empty(ZORV_HERE, io, store::insert_privilege_user_block(username_of(io).c_str()),
                      "insert_privilege_user_block (username)");
}

int db_privilege_user_block_query_handler(kx_io* io) {
  ZORV_LOG(info, "db_privilege_user_block_query_imp\n");
  return handle_query(ZORV_HERE, io, select<kUserBlock>, "select_privilege_user_block()",
                      "select_privilege_user_block (&cond, &con)");
}

int db_privilege_user_block_delete_handler(kx_io* io) {
  ZORV_LOG(info, "db_privilege_user_block_delete_handler\n");
  return answer_empty(ZORV_HERE, io, store::delete_privilege_user_block(username_of(io).c_str()),
                      "delete_privilege_user_block (username)");
}

int db_privilege_user_block_clean_handler(kx_io* io) {
  ZORV_LOG(info, "db_privilege_user_block_clean_handler\n");
  return answer_empty(ZORV_HERE, io, store::clean_privilege_user_block(),
                      "clean_privilege_user_block ()");
}

// The entry text is the insert handler's.
int db_privilege_user_block_check_handler(kx_io* io) {
  ZORV_LOG(info, "db_privilege_user_block\n");
  const int result = store::check_privilege_user_block(username_of(io).c_str());
  ZORV_LOG(debug, "ret: %d\n", result);
  char digits[16];
  const int length = snprintf(digits, sizeof digits, "%d", result);
  kx_io_realloc(io, 0);
  kx_io_write(io, digits, static_cast<size_t>(length));
  return replied(io);
}

// The rows of these methods: what each takes and gives, in bytes; a user name and an answer in
// words have no size.
namespace {

constexpr size_t kRows = kQueryHeaderSize;  // and the records behind it

constexpr Method kMethods[] = {
    {kServerLog.methods.insert, db_conn_insert_handler, sizeof(db_conn_server_log), 0},
    {kServerLog.methods.query, db_conn_server_log_query_handler, sizeof(db_query_cond), kRows},
    {kServerLog.methods.clean, db_conn_server_clean_handler, 0, 0},
    {kServerLog.methods.remove, db_conn_server_delete_handler, sizeof(db_delete_cond), 0},
    {kClientLog.methods.insert, db_conn_client_log_insert_handler, sizeof(db_conn_client_log_data),
     0},
    {kClientLog.methods.query, db_conn_client_log_query_handler, sizeof(db_query_cond), kRows},
    {kClientLog.methods.clean, db_conn_client_clean_handler, 0, 0},
    {kClientLog.methods.remove, db_conn_client_delete_handler, sizeof(db_delete_cond), 0},
    {kEventLog.methods.insert, db_event_insert_handler, sizeof(db_event_data), 0},
    {kEventLog.methods.query, db_event_query_handler, sizeof(db_query_cond), kRows},
    {kServerList.methods.insert, db_server_list_insert_handler, sizeof(db_server_list_data), 0},
    {kServerList.methods.query, db_server_list_query_handler, sizeof(db_query_cond), kRows},
    {kServerList.methods.remove, db_server_list_delete_handler, sizeof(db_delete_cond), 0},
    {kServerList.methods.clean, db_server_list_clean_handler, 0, 0},
    {kDeviceInfo.methods.insert, db_device_info_insert_handler, sizeof(db_device_info_data),
     sizeof(zorv_mobile_gen_uuid_data_get)},
    {kDeviceInfo.methods.query, db_device_info_query_handler, sizeof(db_query_cond), kRows},
    {kDeviceInfo.methods.remove, db_device_info_delete_handler, sizeof(db_delete_cond), 0},
    {kDeviceInfo.methods.clean, db_device_info_clean_handler, 0, 0},
    {"zorv_mobile_gen_zorv_uuid", zorv_mobile_gen_zorv_uuid, 0,
     sizeof(zorv_mobile_gen_uuid_data_get)},
    {kUserBlock.methods.insert, db_privilege_user_block_insert_handler, 0, 0},
    {kUserBlock.methods.query, db_privilege_user_block_query_handler, sizeof(db_query_cond), kRows},
    {kUserBlock.methods.remove, db_privilege_user_block_delete_handler, 0, 0},
    {kUserBlock.methods.clean, db_privilege_user_block_clean_handler, 0, 0},
    {"db_privilege_user_block_check", db_privilege_user_block_check_handler, 0, 0},
};

constexpr bool has_one_row(const char* name) {
  const auto is_it = [name](const Method& method) { return method.name == std::string_view(name); };
  return name == nullptr || std::count_if(std::begin(kMethods), std::end(kMethods), is_it) == 1;
}

consteval bool serves_every_table() {
  for (const zorv::TableSchema* table : zorv::kTables) {
    const zorv::TableMethods& methods = table->methods;
    for (const char* name : {methods.insert, methods.query, methods.remove, methods.clean}) {
      if (!has_one_row(name)) {
        return false;
      }
    }
  }
  return true;
}
static_assert(std::all_of(std::begin(zorv::kTables), std::end(zorv::kTables),
                          [](const zorv::TableSchema* table) {
                            return table->record_size <= ReplyRows::kBlock;
                          }),
              "a record must fit into a block of an answer");
static_assert(serves_every_table(), "a method that a table declares has no row, or two");

}  // namespace

std::span<const Method> methods() {
  return kMethods;
}
