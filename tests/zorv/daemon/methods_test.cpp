// The methods over the real bus: what each does beyond keeping rows, and what arrives when a caller
// sends something else.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/records.h"
#include "zorvd_db.h"

namespace {

using namespace std::string_literals;
using harness::list;
using zorv::copy_text;

int call(const char* method, const std::string& payload, std::string* ret_reply = nullptr,
         int timeout_s = 5, int fd = -1) {
  return harness::bus_call(method, payload, ret_reply, timeout_s, fd, kZorvdAddress);
}

db_conn_server_log server_record(int vpn_type, int action) {
  db_conn_server_log record{};
  copy_text(record.username, "alice");
  record.vpn_type = vpn_type;
  record.action = action;
  record.time = 1795234206;
  record.uptime = 11;
  record.tx_total = 2622;
  record.rx_total = 2048;
  copy_text(record.source_ip, "10.99.0.2");
  copy_text(record.vpn_ip, "10.8.0.2");
  return record;
}

db_conn_client_log_data client_record(int vpn_type, int action) {
  db_conn_client_log_data record{};
  record.vpn_type = vpn_type;
  record.action = action;
  record.time = 1795234206;
  record.uptime = 3725;
  record.tx_total = 1048577;
  copy_text(record.username, "office");
  copy_text(record.vpn_ip, "10.8.0.6");
  copy_text(record.country_code, "DE");
  copy_text(record.wan_ip, "203.0.113.9");
  return record;
}

// Reports a device; the UUID that it is told.
std::string report(const char* mac, const char* name) {
  db_device_info_data record{};
  copy_text(record.mac, mac);
  copy_text(record.dev_name, name);
  copy_text(record.dev_uuid, "chosen by the caller");
  zorv_mobile_gen_uuid_data_get uuid{};
  EXPECT_EQ(add_device_info(&record, &uuid), KX_SUCCESS);
  return uuid.zorv_uuid;
}

class Methods : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    harness::install_notify();
    daemon_ = std::make_unique<harness::Daemon>();
  }
  void TearDown() override { EXPECT_EQ(daemon_->stop(), 0); }
  std::unique_ptr<harness::Daemon> daemon_;
};

// The texts of so many notifications. The tools run beside each other and may finish in any order.
std::multiset<std::string> notified(size_t count) {
  std::multiset<std::string> texts;
  for (const std::string& line : harness::notifications(count)) {
    const size_t at = line.find("Date: ");
    texts.insert(line.substr(at, line.find('"', at) - at));
  }
  return texts;
}

TEST_F(Methods, ServerLogIsNotifiedInItsWords) {
  for (const auto& [type, action] : {std::pair{4, 2}, {4, 3}, {1, 1}, {32, 2}, {16, 4}}) {
    db_conn_server_log record = server_record(type, action);
    EXPECT_EQ(add_conn_server_log(&record), 0);
  }
  EXPECT_EQ(list(list_conn_server_log).rows.size(), 5U) << "those of unknown codes, too";
  const std::string date = "Date: 2026-11-21 04:10:06, ";
  const std::string rates = "Transmission rate: 2.56 KB, Receiving rate: 2.00 KB, ";
  const std::string who = "Username: alice, Source: 10.99.0.2, Client IP: ";
  const std::multiset<std::string> expected{
      date + "Uptime:  , " + who + "10.8.0.2, " + rates +
          "Protocol: OpenVPN, Connection status: Login OK.",
      date + "Uptime: 00:11, " + who + "10.8.0.2, " + rates +
          "Protocol: OpenVPN, Connection status: Logout.",
      date + "Uptime:  , " + who + " , " + rates + "Protocol: PPTP, Connection status: Login Fail.",
  };
  EXPECT_EQ(notified(3), expected);
  EXPECT_TRUE(harness::log_holds("insert_conn_server_log: db_con->vpn_type is incorrect: 32, "));
  EXPECT_TRUE(harness::log_holds("insert_conn_server_log: db_con->action is incorrect: 4, "));
}

TEST_F(Methods, ClientLogHasItsOwnCodesAndNotifications) {
  for (const auto& [type, action] :
       {std::pair{1, 2}, {0x100, 1}, {0x100, 2}, {0x400, 3}, {0x1000, 4}}) {
    db_conn_client_log_data record = client_record(type, action);
    EXPECT_EQ(add_conn_client_log(&record), 0);
  }
  EXPECT_EQ(list(list_conn_client_log).rows.size(), 5U);
  const std::string date = "Date: 2026-11-21 04:10:06, ";
  const std::string abroad = "Public IP: 203.0.113.9, Server country: DE, ";
  const std::multiset<std::string> expected{
      date +
          "Uptime:  , Username: office, Protocol: PPTP, Client IP: 10.8.0.6, Public IP:  , "
          "Server country:  , Transmission rate:  , Receiving rate:  , Connection status: "
          "Login OK.",
      date + "Uptime: 1:02:05, Username: office, Protocol: OpenVPN, Client IP: 10.8.0.6, " +
          abroad + "Transmission rate: 1.00 MB, Receiving rate:  , Connection status: Logout.",
      date + "Uptime:  , Username: office, Protocol: Fenlo, Client IP: 10.8.0.6, " + abroad +
          "Transmission rate:  , Receiving rate:  , Connection status: Get geolocation.",
  };
  EXPECT_EQ(notified(3), expected);
  EXPECT_TRUE(harness::log_holds("insert_conn_client_log: db_con->vpn_type is incorrect: 1, "));
  EXPECT_TRUE(harness::log_holds("insert_conn_client_log: db_con->action is incorrect: 1, "));
}

TEST_F(Methods, EventsAreAcceptedAndNeverListed) {
  db_event_data event;
  EXPECT_EQ(add_event_data(&event), 0);
  EXPECT_EQ(call("db_event_insert", ""), KX_IS_REJECT);
  std::string answer;
  EXPECT_EQ(call("db_event_query", std::string(sizeof(db_query_cond), '\0'), &answer), KX_SUCCESS);
  EXPECT_EQ(answer, std::string(24, '\0'));
  EXPECT_TRUE(harness::log_holds(
      "Error in select statement SELECT * FROM event_log ORDER BY id ASC LIMIT 0 OFFSET 0; ["));
  EXPECT_TRUE(harness::log_holds("\n 0 records returned."));
}

TEST_F(Methods, DevicesKeepTheirFirstUuidByMac) {
  const std::string first = report("aa:bb", "phone");
  EXPECT_EQ(report("aa:bb", "renamed"), first);
  EXPECT_NE(report("AA:BB", "another"), first);
  const auto listed = list(list_device_info);
  ASSERT_EQ(listed.rows.size(), 2U);
  EXPECT_EQ(listed.rows[0].id, 2) << "the second report replaced the first under a new id";
  EXPECT_STREQ(listed.rows[0].dev_name, "renamed");
  EXPECT_EQ(listed.rows[0].dev_uuid, first);
  EXPECT_EQ(harness::sql(
                "SELECT name FROM sqlite_master WHERE name LIKE '%device%' OR name LIKE '%list%'"),
            std::vector<std::string>{});
  // An empty MAC filters nothing: the answer is the table's first row.
  EXPECT_EQ(report("", "nameless"), first);
  EXPECT_EQ(clean_device_info(), 0);
  EXPECT_NE(report("aa:bb", "phone"), first);
}

TEST_F(Methods, ServerListIsLostAfterASecondDelete) {
  db_server_list_data record{};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(add_server_list(&record), 0);
  }
  for (record_int64 id : {1, 2}) {
    EXPECT_EQ(list(list_server_list).total, 4U - static_cast<unsigned>(id));
    db_delete_cond which{id};
    EXPECT_EQ(delete_server_list(&which), 0);
  }
  EXPECT_EQ(list(list_server_list).rows.size(), 0U);
  EXPECT_EQ(add_server_list(&record), 0);
  EXPECT_EQ(list(list_server_list).total, ~0ULL) << "nothing makes the table again";
  EXPECT_TRUE(harness::log_holds("no such table: server_list"));
  db_conn_server_log log = server_record(4, 2);
  EXPECT_EQ(add_conn_server_log(&log), 0);
  EXPECT_EQ(list(list_conn_server_log).rows.size(), 1U) << "every other table serves on";
}

TEST_F(Methods, AnswersInWordsHaveTheirLength) {
  std::string answer;
  EXPECT_EQ(call("db_privilege_user_block_check", "alice", &answer), KX_SUCCESS);
  EXPECT_EQ(answer, "-1") << "nobody serves the policy";
  EXPECT_EQ(call("db_device_info_insert", harness::bytes_of(db_device_info_data{}), &answer),
            KX_SUCCESS);
  EXPECT_EQ(answer.size(), 36U);
  std::string uuid;
  EXPECT_EQ(call("zorv_mobile_gen_zorv_uuid", "", &uuid), KX_SUCCESS);
  EXPECT_EQ(uuid.find_first_not_of("0123456789abcdef"), 32U);
  EXPECT_EQ(uuid.substr(32), "%Z?\0"s);
  EXPECT_NE(uuid, answer);
}

TEST_F(Methods, ADescriptorThatComesAlongIsClosed) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  EXPECT_EQ(call("zorv_mobile_gen_zorv_uuid", "", nullptr, 5, ends[1]), KX_SUCCESS);
  EXPECT_EQ(call("no_such_method", "", nullptr, 5, ends[1]), KX_IS_INVALID);
  close(ends[1]);
  char byte = 0;
  EXPECT_EQ(read(ends[0], &byte, 1), 0) << "nobody holds the other end";
  close(ends[0]);
}

TEST_F(Methods, WrongRequestsAreAnsweredAtOnceAndChangeNothing) {
  db_conn_server_log record = server_record(4, 2);
  ASSERT_EQ(add_conn_server_log(&record), 0);
  std::string injection(sizeof(db_query_cond), '\0');
  injection.replace(32, 35, "id=1;DROP TABLE conn_server_log;--");
  injection[1057] = 'x';
  const struct {
    const char* method;
    std::string payload;
    int status;
  } cases[] = {
      {"no_such_method", "", KX_IS_INVALID},
      {"DB_CONN_INSERT", std::string(5200, 'x'), KX_IS_INVALID},
      {"db_event_del", "12345678", KX_IS_INVALID},
      {"db_conn_insert", "", KX_IS_REJECT},
      {"db_conn_server_log_query", "", KX_IS_REJECT},
      {"db_conn_server_log_del", "", KX_IS_REJECT},
      {"db_device_info_insert", "", KX_IS_REJECT},
      {"db_event_insert", std::string(300, 'x'), KX_SUCCESS},
      {"db_conn_client_log_clean", "a payload that is not looked at", KX_SUCCESS},
      {"db_conn_server_log_query", injection, KX_SUCCESS},
      {"db_conn_server_log_query", std::string(2088, '\xff'), KX_IS_REJECT},
      {"db_server_list_insert", std::string(4128, '\xff'), KX_SUCCESS},
      {"db_device_info_insert", std::string(7192, '\xff'), KX_SUCCESS},
      {"db_privilege_user_block_insert", std::string(9000, '\xff'), KX_SUCCESS},
      {"db_conn_client_log_insert", std::string(3152, '\xff'), KX_SUCCESS},
      {"db_conn_insert", std::string(100000, '\xff'), KX_SUCCESS},
      {"db_conn_insert", "12345678a", KX_SUCCESS},
  };
  for (const auto& c : cases) {
    std::string reply;
    EXPECT_EQ(call(c.method, c.payload, &reply), c.status) << c.method << " " << c.payload.size();
    const auto row = std::find_if(methods().begin(), methods().end(), [&c](const Method& method) {
      return method.name == std::string_view(c.method);
    });
    EXPECT_EQ(reply.size(), c.status == KX_SUCCESS ? row->reply : 0) << c.method;
  }
  const auto rows = list(list_conn_server_log).rows;
  ASSERT_EQ(rows.size(), 3U);
  EXPECT_EQ(std::string(rows[1].username), std::string(1024, '\xff'));
  EXPECT_EQ(rows[1].action, -1);
  EXPECT_STREQ(rows[2].username, "a") << "a short payload, zeros behind it";
  EXPECT_STREQ(rows[2].device_info, "");
  EXPECT_EQ(rows[2].time, 0U);
  EXPECT_TRUE(harness::log_holds("db_conn_insert_handler: kx_io_read returned NULL\n"));
  EXPECT_TRUE(harness::log_holds("select_conn_server_log (&cond, &con) fail\n"));
}

TEST_F(Methods, AHundredThousandRecordsArriveWhole) {
  harness::insert_rows("conn_server_log", 100000, "id, username, action", "i, 'user' || i, 2");
  // With a deadline that a busy machine meets, which the client function's is not.
  std::string reply;
  ASSERT_EQ(call("db_conn_server_log_query", harness::bytes_of(harness::page()), &reply, 60),
            KX_SUCCESS);
  ASSERT_EQ(reply.size(), 24 + 100000 * sizeof(db_conn_server_log));
  record_uint64 head[2];
  memcpy(head, reply.data(), sizeof head);
  EXPECT_EQ(head[0], 100000U);
  EXPECT_EQ(head[1], 100000U);
  for (size_t i = 0; i < 100000; ++i) {
    db_conn_server_log row;
    memcpy(&row, reply.data() + 24 + i * sizeof row, sizeof row);
    ASSERT_EQ(row.id, static_cast<record_int64>(i + 1));
    ASSERT_EQ(row.username, "user" + std::to_string(i + 1));
    ASSERT_EQ(row.action, 2);
  }
  EXPECT_EQ(call("db_conn_server_log_clean", "", nullptr, 60), KX_SUCCESS);
  EXPECT_TRUE(harness::sql("SELECT id FROM conn_server_log").empty());
}

}  // namespace
