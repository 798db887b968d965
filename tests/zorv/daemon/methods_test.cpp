// The methods over the real bus: what each does beyond keeping rows, and what arrives when a caller
// sends something else.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/records.h"
#include "zorvd_db.h"

namespace {

using namespace std::string_literals;
using harness::list;
using zorv::copy_text;

int call(const char* method, const std::string& payload, std::string* ret_reply, int fd) {
  return harness::bus_call(method, payload, ret_reply, 5, fd, kZorvdAddress);
}

template <class Record>
Record connection(int vpn_type, int action) {
  Record record{};
  copy_text(record.username, "alice");
  record.vpn_type = vpn_type;
  record.action = action;
  record.time = 1795234206;
  record.uptime = 3725;
  record.tx_total = 1048577;
  record.rx_total = 2048;
  copy_text(record.vpn_ip, "10.8.0.2");
  return record;
}

TEST(Methods, ConnectionsAreKeptAndNotifiedInTheirWords) {
  setenv("TZ", "UTC", 1);
  harness::install_notify();
  harness::Daemon daemon;
  for (const auto& [type, action] : {std::pair{4, 2}, {2, 3}, {1, 1}, {32, 2}, {16, 4}}) {
    auto record = connection<db_conn_server_log>(type, action);
    copy_text(record.source_ip, "10.99.0.2");
    EXPECT_EQ(add_conn_server_log(&record), 0);
  }
  for (const auto& [type, action] : {std::pair{1, 2}, {256, 1}, {256, 2}, {1024, 3}, {4096, 4}}) {
    auto record = connection<db_conn_client_log_data>(type, action);
    copy_text(record.country_code, "DE");
    copy_text(record.wan_ip, "203.0.113.9");
    EXPECT_EQ(add_conn_client_log(&record), 0);
  }
  EXPECT_EQ(list(list_conn_server_log).total, 5U) << "those of unknown codes, too";
  const std::string head = "Date: 2026-11-21 04:10:06, Uptime: ";
  const std::string source = ", Username: alice, Source: 10.99.0.2, Client IP: ";
  const std::string rates = ", Transmission rate: 1.00 MB, Receiving rate: 2.00 KB, ";
  const std::string abroad = "Client IP: 10.8.0.2, Public IP: 203.0.113.9, Server country: DE";
  const std::string kind = ", Username: alice, Protocol: ";
  const std::string blank = ", Transmission rate:  , Receiving rate:  , Connection status: ";
  const std::multiset<std::string> expected{
      head + " " + source + "10.8.0.2" + rates + "Protocol: OpenVPN, Connection status: Login OK.",
      head + "1:02:05" + source + "10.8.0.2" + rates +
          "Protocol: L2TP/IPSec, Connection status: Logout.",
      head + " " + source + " " + rates + "Protocol: PPTP, Connection status: Login Fail.",
      head + " " + kind + "PPTP, Client IP: 10.8.0.2, Public IP:  , Server country:  " + blank +
          "Login OK.",
      head + "1:02:05" + kind + "OpenVPN, " + abroad + rates + "Connection status: Logout.",
      head + " " + kind + "Fenlo, " + abroad + blank + "Get geolocation.",
  };
  std::multiset<std::string> texts;  // the tools run side by side
  for (const std::string& line : harness::notifications(6)) {
    const size_t at = line.find("Date: ");
    texts.insert(line.substr(at, line.find('"', at) - at));
  }
  EXPECT_EQ(texts, expected);
  EXPECT_TRUE(harness::log_holds("insert_conn_server_log: db_con->vpn_type is incorrect: 32, "));
  EXPECT_TRUE(harness::log_holds("insert_conn_client_log: db_con->action is incorrect: 1, "));
}

TEST(Methods, DevicesKeepTheirFirstUuidByMac) {
  // Reports a device; the UUID that it is told.
  const auto report = [](const char* mac, const char* name) {
    db_device_info_data record{};
    copy_text(record.mac, mac);
    copy_text(record.dev_name, name);
    copy_text(record.dev_uuid, "chosen by the caller");
    zorv_mobile_gen_uuid_data_get uuid{};
    EXPECT_EQ(add_device_info(&record, &uuid), KX_SUCCESS);
    return std::string(uuid.zorv_uuid);
  };
  harness::Daemon daemon;
  const std::string first = report("aa:bb", "phone");
  EXPECT_EQ(report("aa:bb", "renamed"), first);
  EXPECT_NE(report("AA:BB", "another"), first);
  const auto rows = list(list_device_info).rows;
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows[0].id, 2) << "the second report replaced the first under a new id";
  EXPECT_STREQ(rows[0].dev_name, "renamed");
  EXPECT_EQ(rows[0].dev_uuid, first);
}

TEST(Methods, AnyRequestIsAnsweredAtOnceAndNoDescriptorIsKept) {
  harness::Daemon daemon;
  const std::tuple<const char*, std::string, int, std::string> cases[] = {
      {"db_conn_insert", "", KX_IS_REJECT, ""},
      {"db_conn_server_log_query", "", KX_IS_REJECT, ""},
      {"db_event_insert", "x", KX_SUCCESS, ""},
      {"db_event_query", std::string(sizeof(db_query_cond), '\0'), KX_SUCCESS,
       std::string(24, '\0')},
      {"db_conn_server_log_query", std::string(2088, '\xff'), KX_IS_REJECT, ""},
      {"db_conn_insert", std::string(100000, '\xff'), KX_SUCCESS, ""},
      {"db_privilege_user_block_check", "alice", KX_SUCCESS, "-1"},
  };
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  for (const auto& [method, payload, status, expected] : cases) {
    std::string reply;
    EXPECT_EQ(call(method, payload, &reply, ends[1]), status) << method;
    EXPECT_EQ(reply, expected) << method;
  }
  std::string uuid;
  EXPECT_EQ(call("zorv_mobile_gen_zorv_uuid", "", &uuid, ends[1]), KX_SUCCESS);
  EXPECT_EQ(uuid.find_first_not_of("0123456789abcdef"), 32U);
  EXPECT_EQ(uuid.substr(32), "%Z?\0"s);
  std::string kept;
  EXPECT_EQ(call("db_device_info_insert", uuid, &kept, ends[1]), KX_SUCCESS);
  EXPECT_EQ(kept.size(), 36U);
  EXPECT_NE(uuid, kept);
  close(ends[1]);
  char byte = 0;
  EXPECT_EQ(read(ends[0], &byte, 1), 0) << "nobody holds the other end";

  EXPECT_EQ(harness::sql("SELECT length(CAST(username AS BLOB)) FROM conn_server_log"),
            std::vector<std::string>{"1024"});
  EXPECT_TRUE(harness::log_holds("db_conn_insert_handler: kx_io_read returned NULL\n"));
  EXPECT_TRUE(harness::log_holds("select_conn_server_log (&cond, &con) fail\n"));
  EXPECT_TRUE(harness::log_holds("SELECT * FROM event_log ORDER BY id ASC LIMIT 0 OFFSET 0; ["));
}

}  // namespace
