// The 24 methods over the real bus: records and answers through the client functions, and what
// arrives when a caller sends something else.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "harness/daemon.h"
#include "harness/test_root.h"
#include "kxbus.h"
#include "zorv_api_db.h"
#include "zorv_api_mobile.h"

namespace {

template <class Query>
struct Listed {
  int status;
  record_uint64 total;
  std::vector<typename Query::record_type> rows;
};

template <class Query>
Listed<Query> list(int (*function)(db_query_cond*, Query**),
                   db_query_cond cond = {0, -1, 0, 0, "", ""}) {
  Query query{};
  query.count = 4711;  // stays when the call fails
  Query* result = &query;
  Listed<Query> listed{function(&cond, &result), query.total, {}};
  if (query.count != 4711) {
    listed.rows.assign(query.data, query.data + query.count);
    free(query.data);
  } else {
    listed.status = -4711;
  }
  return listed;
}

struct Answer {
  int status;
  std::string bytes;
};

Answer call(const char* method, const std::string& payload, int timeout_s = 5) {
  kx_io* io = kx_io_create();
  kx_io_write(io, payload.data(), payload.size());
  Answer answer{kx_call(kZorvdAddress, method, io, timeout_s, -1), ""};
  size_t length = 0;
  const void* bytes = answer.status == KX_SUCCESS ? kx_io_read(io, &length) : nullptr;
  if (bytes != nullptr) {
    answer.bytes.assign(static_cast<const char*>(bytes), length);
  }
  kx_io_free(io);
  return answer;
}

template <size_t Size>
void set(char (&field)[Size], const std::string& text) {
  memset(field, 0, Size);
  memcpy(field, text.data(), std::min(text.size(), Size));
}

db_conn_server_log server_record(const char* user, int vpn_type, int action) {
  db_conn_server_log record{};
  set(record.username, user);
  record.vpn_type = vpn_type;
  record.action = action;
  record.time = 1795234206;
  record.uptime = 11;
  record.tx_total = 2622;
  record.rx_total = 2621;
  set(record.source_ip, "10.99.0.2");
  set(record.vpn_ip, "10.8.0.2");
  return record;
}

db_conn_client_log_data client_record(int vpn_type, int action) {
  db_conn_client_log_data record{};
  set(record.username, "office");
  record.vpn_type = vpn_type;
  record.action = action;
  record.time = 1795234206;
  record.uptime = 3725;
  record.tx_total = 1048577;
  record.rx_total = 0;
  set(record.vpn_ip, "10.8.0.6");
  memcpy(record.country_code, "DE", 3);
  set(record.wan_ip, "203.0.113.9");
  return record;
}

db_device_info_data device(const char* mac, const char* name) {
  db_device_info_data record{};
  set(record.mac, mac);
  set(record.dev_name, name);
  set(record.dev_uuid, "chosen by the caller");
  return record;
}

class Methods : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    harness::install_notify();
    daemon_ = std::make_unique<harness::Daemon>();
  }
  void TearDown() override {
    if (daemon_ != nullptr) {
      EXPECT_EQ(daemon_->stop(), 0);
    }
  }
  void restart(int signal_number) {
    daemon_->process().send(signal_number);
    daemon_->process().wait();
    daemon_ = std::make_unique<harness::Daemon>();
  }
  std::unique_ptr<harness::Daemon> daemon_;
};

TEST_F(Methods, ServerLogTravelsStoredListedAndNotified) {
  db_conn_server_log in = server_record("alice", 4, 2);
  EXPECT_EQ(add_conn_server_log(&in), 0);
  db_conn_server_log out = server_record("alice", 4, 3);
  EXPECT_EQ(add_conn_server_log(&out), 0);
  db_conn_server_log fail = server_record("mallory", 1, 1);
  EXPECT_EQ(add_conn_server_log(&fail), 0);
  db_conn_server_log odd = server_record("odd", 8, 2);
  EXPECT_EQ(add_conn_server_log(&odd), 0);
  odd.vpn_type = 16;
  odd.action = 4;
  EXPECT_EQ(add_conn_server_log(&odd), 0);

  const auto listed = list(list_conn_server_log);
  ASSERT_EQ(listed.rows.size(), 5U);
  EXPECT_EQ(listed.total, 5U);
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(listed.rows[i].id, static_cast<record_int64>(i + 1));
  }
  out.id = 2;
  EXPECT_EQ(memcmp(&listed.rows[1], &out, sizeof out), 0) << "every byte comes back";

  // Started one after another but running beside each other, the tools may finish in any order.
  std::multiset<std::string> seen;
  for (const std::string& line : harness::notifications(3)) {
    const size_t at = line.find("[ZORV Service] ");
    seen.insert(line.substr(at, line.find('"', at) - at));
  }
  const std::multiset<std::string> expected{
      "[ZORV Service] Connection log information. Date: 2026-11-21 04:10:06, Uptime:  , Username: "
      "alice, "
      "Source: 10.99.0.2, Client IP: 10.8.0.2, Transmission rate: 2.56 KB, Receiving rate: 2.56 "
      "KB, "
      "Protocol: OpenVPN, Connection status: Login OK.",
      "[ZORV Service] Connection log information. Date: 2026-11-21 04:10:06, Uptime: 00:11, "
      "Username: "
      "alice, Source: 10.99.0.2, Client IP: 10.8.0.2, Transmission rate: 2.56 KB, Receiving rate: "
      "2.56 "
      "KB, Protocol: OpenVPN, Connection status: Logout.",
      "[ZORV Service] Connection log information. Date: 2026-11-21 04:10:06, Uptime:  , Username: "
      "mallory, Source: 10.99.0.2, Client IP:  , Transmission rate: 2.56 KB, Receiving rate: 2.56 "
      "KB, "
      "Protocol: PPTP, Connection status: Login Fail.",
  };
  EXPECT_EQ(seen, expected);
  EXPECT_TRUE(harness::log_holds("insert_conn_server_log: db_con->vpn_type is incorrect: 8, "));
  EXPECT_TRUE(harness::log_holds("insert_conn_server_log: db_con->action is incorrect: 4, "));
}

TEST_F(Methods, ClientLogHasItsOwnCodesAndNotifications) {
  for (const auto& [type, action] :
       {std::pair{1, 2}, {0x100, 1}, {0x100, 2}, {0x400, 3}, {0x1000, 4}}) {
    db_conn_client_log_data record = client_record(type, action);
    EXPECT_EQ(add_conn_client_log(&record), 0);
  }
  EXPECT_EQ(list(list_conn_client_log).rows.size(), 5U);
  std::multiset<std::string> seen;
  for (const std::string& line : harness::notifications(3)) {
    const size_t at = line.find("Uptime:");
    seen.insert(line.substr(at, line.find('"', at) - at));
  }
  const std::multiset<std::string> expected{
      "Uptime:  , Username: office, Protocol: PPTP, Client IP: 10.8.0.6, Public IP:  , Server "
      "country:  , "
      "Transmission rate:  , Receiving rate:  , Connection status: Login OK.",
      "Uptime: 1:02:05, Username: office, Protocol: OpenVPN, Client IP: 10.8.0.6, Public IP: "
      "203.0.113.9, "
      "Server country: DE, Transmission rate: 1.00 MB, Receiving rate:  , Connection status: "
      "Logout.",
      "Uptime:  , Username: office, Protocol: Fenlo, Client IP: 10.8.0.6, Public IP: 203.0.113.9, "
      "Server "
      "country: DE, Transmission rate:  , Receiving rate:  , Connection status: Get geolocation.",
  };
  EXPECT_EQ(seen, expected);
  EXPECT_TRUE(harness::log_holds("insert_conn_client_log: db_con->vpn_type is incorrect: 1, "));
  EXPECT_TRUE(harness::log_holds("insert_conn_client_log: db_con->action is incorrect: 1, "));
}

TEST_F(Methods, EventsAreAcceptedAndNeverListed) {
  db_event_data event;
  EXPECT_EQ(add_event_data(&event), 0);
  EXPECT_EQ(call("db_event_insert", std::string(300, 'x')).status, KX_SUCCESS);
  EXPECT_EQ(call("db_event_insert", "").status, KX_IS_REJECT);
  const Answer answer = call("db_event_query", std::string(sizeof(db_query_cond), '\0'));
  EXPECT_EQ(answer.status, KX_SUCCESS);
  EXPECT_EQ(answer.bytes, std::string(24, '\0'));
  EXPECT_TRUE(harness::log_holds(
      "Error in select statement SELECT * FROM event_log ORDER BY id ASC LIMIT 0 OFFSET 0; ["));
  EXPECT_TRUE(harness::log_holds("\n 0 records returned."));
}

TEST_F(Methods, DevicesKeepTheirFirstUuidByMac) {
  zorv_mobile_gen_uuid_data_get first{};
  zorv_mobile_gen_uuid_data_get again{};
  zorv_mobile_gen_uuid_data_get other{};
  db_device_info_data record = device("aa:bb", "phone");
  ASSERT_EQ(add_device_info(&record, &first), 0);
  record = device("aa:bb", "renamed");
  ASSERT_EQ(add_device_info(&record, &again), 0);
  record = device("AA:BB", "another");
  ASSERT_EQ(add_device_info(&record, &other), 0);
  EXPECT_STREQ(first.zorv_uuid, again.zorv_uuid);
  EXPECT_STRNE(first.zorv_uuid, other.zorv_uuid);
  EXPECT_EQ(strspn(first.zorv_uuid, "0123456789abcdef"), 32U);
  EXPECT_STREQ(first.zorv_uuid + 32, "%Z?");

  auto listed = list(list_device_info);
  ASSERT_EQ(listed.rows.size(), 2U);
  EXPECT_EQ(listed.rows[0].id, 2) << "the second report replaced the first under a new id";
  EXPECT_STREQ(listed.rows[0].dev_name, "renamed");
  EXPECT_STREQ(listed.rows[0].dev_uuid, first.zorv_uuid);
  EXPECT_EQ(harness::sql(
                "SELECT name FROM sqlite_master WHERE name LIKE '%device%' OR name LIKE '%list%'"),
            std::vector<std::string>{});

  // An empty MAC filters nothing: the answer is the table's first row.
  record = device("", "nameless");
  ASSERT_EQ(add_device_info(&record, &other), 0);
  EXPECT_STREQ(other.zorv_uuid, first.zorv_uuid);

  db_delete_cond which{2};
  EXPECT_EQ(delete_device_info(&which), 0);
  which.id = 3;
  EXPECT_EQ(delete_device_info(&which), 0);
  EXPECT_EQ(list(list_device_info).rows.size(), 1U);
  EXPECT_EQ(clean_device_info(), 0);
  EXPECT_EQ(clean_device_info(), 0);
  EXPECT_EQ(list(list_device_info).rows.size(), 0U);
  record = device("aa:bb", "phone");
  EXPECT_EQ(add_device_info(&record, &again), 0);
  EXPECT_STRNE(first.zorv_uuid, again.zorv_uuid);
}

TEST_F(Methods, ServerListIsLostAfterASecondDeleteAndBackAfterARestart) {
  db_server_list_data record{};
  set(record.uuid, "u-1");
  set(record.device_name, std::string(1024, 'n'));
  record.expire_time = 9;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(add_server_list(&record), 0);
  }
  auto listed = list(list_server_list);
  ASSERT_EQ(listed.rows.size(), 3U);
  EXPECT_EQ(strlen(listed.rows[0].device_name), 1023U);
  EXPECT_EQ(listed.rows[0].expire_time, 9U);

  db_delete_cond which{1};
  EXPECT_EQ(delete_server_list(&which), 0);
  EXPECT_EQ(list(list_server_list).rows.size(), 2U);
  which.id = 2;
  EXPECT_EQ(delete_server_list(&which), 0);
  EXPECT_EQ(list(list_server_list).rows.size(), 0U);
  EXPECT_EQ(add_server_list(&record), 0);
  EXPECT_EQ(list(list_server_list).rows.size(), 0U) << "nothing makes the table again";
  EXPECT_TRUE(harness::log_holds("no such table: server_list"));

  db_conn_server_log log = server_record("alice", 4, 2);
  EXPECT_EQ(add_conn_server_log(&log), 0) << "every other table serves on";
  restart(SIGTERM);
  EXPECT_EQ(add_server_list(&record), 0);
  EXPECT_EQ(list(list_server_list).rows.size(), 1U);
  EXPECT_EQ(clean_server_list(), 0);
  EXPECT_EQ(list(list_server_list).rows.size(), 0U);
}

TEST_F(Methods, RowsSurviveAKilledDaemonAndDeleteAndCleanWork) {
  for (const char* user : {"a", "b", "c"}) {
    db_conn_server_log record = server_record(user, 4, 2);
    EXPECT_EQ(add_conn_server_log(&record), 0);
  }
  restart(SIGKILL);
  EXPECT_EQ(list(list_conn_server_log).rows.size(), 3U);
  db_delete_cond which{2};
  EXPECT_EQ(delete_conn_server_log(&which), 0);
  EXPECT_EQ(list(list_conn_server_log).rows.size(), 2U);
  restart(SIGTERM);
  EXPECT_EQ(clean_conn_server_log(), 0);
  EXPECT_EQ(list(list_conn_server_log).rows.size(), 0U);
  EXPECT_EQ(call("db_conn_client_log_clean", "a payload that is not looked at").status, KX_SUCCESS);
}

TEST_F(Methods, UuidsDifferAndNeedNoPayload) {
  std::set<std::string> uuids;
  zorv_mobile_gen_uuid_data_set kind{7};
  zorv_mobile_gen_uuid_data_get uuid;
  zorv_mobile_gen_uuid_data_get* get = &uuid;
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(zorv_mobile_gen_zorv_uuid(&kind, &get), 0);
    uuids.insert(uuid.zorv_uuid);
  }
  EXPECT_EQ(uuids.size(), 200U);
  const Answer answer = call("zorv_mobile_gen_zorv_uuid", "");
  EXPECT_EQ(answer.bytes.size(), 36U);
  EXPECT_EQ(answer.bytes[35], '\0');
}

TEST_F(Methods, EveryTextFieldKeepsWhatItIsGiven) {
  for (const std::string& text : {std::string("o'brien \"q\" \\ ; --"), std::string("%s%n%llu%%"),
                                  std::string("\x01\n\t\x7f"), std::string("\xff\xfe caf\xc3\xa9"),
                                  std::string(), std::string(1025, 'x')}) {
    const std::string kept = text.substr(0, 1024);
    db_conn_server_log server = server_record("", 4, 2);
    for (auto* field : {&server.username, &server.device_info, &server.source_ip, &server.vpn_ip,
                        &server.outgoing}) {
      set(*field, text);
    }
    ASSERT_EQ(add_conn_server_log(&server), 0);
    const db_conn_server_log row = list(list_conn_server_log, {0, 1, 0, 1, "", ""}).rows.at(0);
    for (const auto* field :
         {&row.username, &row.device_info, &row.source_ip, &row.vpn_ip, &row.outgoing}) {
      EXPECT_EQ(std::string(*field), kept);
    }
    EXPECT_EQ(row.tx_total, 2622) << "the neighbours are as they were";

    db_conn_client_log_data client = client_record(0x400, 3);
    for (auto* field : {&client.username, &client.vpn_ip, &client.wan_ip}) {
      set(*field, text);
    }
    memcpy(client.country_code, "DEU", 3);
    ASSERT_EQ(add_conn_client_log(&client), 0);
    const db_conn_client_log_data back =
        list(list_conn_client_log, {0, 1, 0, 1, "", ""}).rows.at(0);
    EXPECT_STREQ(back.country_code, "DE");
    EXPECT_EQ(std::string(back.wan_ip), kept);
    EXPECT_EQ(back.action, 3);

    db_server_list_data session{};
    for (auto* field : {&session.uuid, &session.username, &session.sid}) {
      set(*field, text);
    }
    set(session.device_name, text);
    ASSERT_EQ(add_server_list(&session), 0);
    const db_server_list_data listed = list(list_server_list, {0, 1, 0, 1, "", ""}).rows.at(0);
    EXPECT_EQ(std::string(listed.sid), kept);
    EXPECT_EQ(std::string(listed.device_name), text.substr(0, 1023));

    db_device_info_data phone = device("mac", "");
    for (auto* field :
         {&phone.ip, &phone.mac, &phone.hoxsid, &phone.user_id, &phone.dev_name, &phone.nic}) {
      set(*field, text);
    }
    zorv_mobile_gen_uuid_data_get uuid{};
    ASSERT_EQ(add_device_info(&phone, &uuid), 0);
    const db_device_info_data found = list(list_device_info, {0, 1, 0, 1, "", ""}).rows.at(0);
    for (const auto* field :
         {&found.ip, &found.mac, &found.hoxsid, &found.user_id, &found.dev_name, &found.nic}) {
      EXPECT_EQ(std::string(*field), kept);
    }
    EXPECT_STREQ(found.dev_uuid + 32, "%Z?");
  }
}

TEST_F(Methods, WrongRequestsAreAnsweredAtOnceAndChangeNothing) {
  db_conn_server_log record = server_record("alice", 4, 2);
  ASSERT_EQ(add_conn_server_log(&record), 0);
  std::string injection(sizeof(db_query_cond), '\0');
  injection.replace(32, 35, "id=1;DROP TABLE conn_server_log;--");
  injection[1057] = 'x';
  struct Case {
    const char* method;
    std::string payload;
    int status;
  };
  for (const Case& c : {
           Case{"no_such_method", "", KX_IS_INVALID},
           Case{"DB_CONN_INSERT", std::string(5200, 'x'), KX_IS_INVALID},
           Case{"db_event_del", "12345678", KX_IS_INVALID},
           Case{"", "", KX_IS_INVALID},
           Case{"db_conn_insert", "", KX_IS_REJECT},
           Case{"db_conn_server_log_query", "", KX_IS_REJECT},
           Case{"db_conn_server_log_del", "", KX_IS_REJECT},
           Case{"db_device_info_insert", "", KX_IS_REJECT},
           Case{"db_conn_server_log_query", injection, KX_SUCCESS},
           Case{"db_conn_server_log_query", std::string(2088, '\xff'), KX_IS_REJECT},
           Case{"db_server_list_insert", std::string(4128, '\xff'), KX_SUCCESS},
           Case{"db_device_info_insert", std::string(7192, '\xff'), KX_SUCCESS},
           Case{"db_privilege_user_block_insert", std::string(9000, '\xff'), KX_SUCCESS},
           Case{"db_conn_client_log_insert", std::string(3152, '\xff'), KX_SUCCESS},
           Case{"db_conn_insert", std::string(100000, '\xff'), KX_SUCCESS},
           Case{"db_conn_insert", "12345678a", KX_SUCCESS},
       }) {
    EXPECT_EQ(call(c.method, c.payload).status, c.status) << c.method << " " << c.payload.size();
  }
  const auto rows = list(list_conn_server_log).rows;
  ASSERT_EQ(rows.size(), 3U);
  EXPECT_EQ(std::string(rows[1].username), std::string(1024, '\xff'));
  EXPECT_EQ(rows[1].action, -1);
  EXPECT_STREQ(rows[2].username, "a") << "a short payload, zeros behind it";
  EXPECT_EQ(rows[2].time, 0U);
  EXPECT_TRUE(harness::log_holds("db_conn_insert_handler: kx_io_read returned NULL\n"));
  EXPECT_TRUE(harness::log_holds("select_conn_server_log (&cond, &con) fail\n"));
}

// What an earlier caller sent, refused or in a memfd, never stands behind a later, shorter record.
TEST_F(Methods, AShortRecordIsZeroBehindWhatCame) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string name = '\0' + harness::test_root() + "/var/run/zorvd.sock";
  memcpy(address.sun_path, name.data(), name.size());
  const int caller = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  ASSERT_EQ(connect(caller, reinterpret_cast<sockaddr*>(&address),
                    static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
            0);
  const std::string refused(9000, 'A');
  ASSERT_EQ(send(caller, refused.data(), refused.size(), 0), 9000);
  char answer[64];
  EXPECT_GE(recv(caller, answer, sizeof answer, 0), 0);
  close(caller);
  EXPECT_EQ(call("db_conn_insert", "12345678mallory").status, KX_SUCCESS);
  EXPECT_EQ(call("no_such_method_with_a_long_name", std::string(100000, 'B')).status,
            KX_IS_INVALID);
  EXPECT_EQ(call("db_conn_insert", "12345678").status, KX_SUCCESS);
  for (const db_conn_server_log& row : list(list_conn_server_log).rows) {
    EXPECT_STREQ(row.device_info, "");
    EXPECT_EQ(row.action, 0);
    EXPECT_TRUE(strcmp(row.username, "mallory") == 0 || row.username[0] == '\0') << row.username;
  }
}

TEST_F(Methods, AFailedListReturnsZeroAndLeavesTheResultAlone) {
  EXPECT_EQ(list(list_conn_server_log, {0, 5, 14, 0, "", ""}).status, -4711);
  EXPECT_EQ(list(list_conn_server_log, {0, 5, -1, 0, "", ""}).status, -4711);
  EXPECT_EQ(list(list_conn_server_log, {0, 5, 13, 0, "", ""}).rows.size(), 0U);
  daemon_->stop();
  daemon_.reset();
  EXPECT_EQ(list(list_privilege_user_block).status, -4711);
  EXPECT_TRUE(harness::log_holds("kxh list_privilege_user_block, ret=2"));
  db_conn_server_log record = server_record("alice", 4, 2);
  EXPECT_EQ(add_conn_server_log(&record), KX_NOT_READY);
  zorv_mobile_gen_uuid_data_get uuid{"kept"};
  db_device_info_data phone = device("aa", "phone");
  EXPECT_EQ(add_device_info(&phone, &uuid), KX_NOT_READY);
  EXPECT_STREQ(uuid.zorv_uuid, "kept");
}

TEST_F(Methods, AHundredThousandRecordsArriveWhole) {
  ASSERT_TRUE(
      harness::sql(
          "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i < 100000) "
          "INSERT INTO conn_server_log (id, username, action) SELECT i, 'user' || i, 2 FROM n;")
          .empty());
  // With a deadline that a busy machine meets, which the client function's is not.
  const db_query_cond cond{0, -1, 0, 0, "", ""};
  const Answer answer = call("db_conn_server_log_query",
                             std::string(reinterpret_cast<const char*>(&cond), sizeof cond), 60);
  ASSERT_EQ(answer.status, KX_SUCCESS);
  ASSERT_EQ(answer.bytes.size(), 24 + 100000 * sizeof(db_conn_server_log));
  const auto number = [&answer](size_t offset) {
    record_uint64 value = 0;
    memcpy(&value, answer.bytes.data() + offset, sizeof value);
    return value;
  };
  EXPECT_EQ(number(0), 100000U);
  EXPECT_EQ(number(8), 100000U);
  for (size_t i = 0; i < 100000; ++i) {
    const size_t offset = 24 + i * sizeof(db_conn_server_log);
    ASSERT_EQ(number(offset), i + 1);
    ASSERT_EQ(answer.bytes.data() + offset + 8, "user" + std::to_string(i + 1));
    ASSERT_EQ(answer.bytes[offset + 5196], 2);
  }
}

}  // namespace
