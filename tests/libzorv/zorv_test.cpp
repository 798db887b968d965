// The C interface as its callers use it: the shared library against the real daemon, and against
// what may stand in the daemon's place.
#include "zorv.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <thread>

#include "harness/daemon.h"
#include "harness/fake_service.h"
#include "harness/test_root.h"

namespace {

using harness::sql;
using Texts = std::vector<std::string>;

constexpr const char* kPolicy = "/etc/config/vpn_block.conf";
constexpr const char* kZorvd = "@/var/run/zorvd.sock";
constexpr zorv_call kQuick{sizeof(zorv_call), 200, 0};

zorv_server_record alice() {
  zorv_server_record record{};
  record.size = sizeof record;
  record.vpn_type = ZORV_L2TP_SERVER;
  record.username = "alice";
  record.source_ip = "192.0.2.7";
  record.vpn_ip = "10.8.0.2";
  record.device_info = "phone";
  record.outgoing = "ppp0";
  record.time = 1700000000;
  record.uptime = 61;
  record.tx_total = 5000000000;
  record.rx_total = UINT64_MAX;
  record.tx_rate = -1;
  record.rx_rate = 2;
  return record;
}

zorv_client_record office() {
  zorv_client_record record{};
  record.size = sizeof record;
  record.vpn_type = ZORV_WIREGUARD_CLIENT;
  record.username = "nas";
  record.vpn_ip = "10.9.0.2";
  record.wan_ip = "198.51.100.1";
  record.country_code = "DEU";
  record.time = 1700000001;
  record.uptime = 3;
  record.tx_total = 4;
  record.rx_total = 5;
  record.tx_rate = 6;
  record.rx_rate = 7;
  return record;
}

struct Asked {
  int answer;
  int status;
  uint64_t seconds_left;
  bool operator==(const Asked&) const = default;
};
void PrintTo(const Asked& asked, std::ostream* out) {
  *out << asked.answer << " status " << asked.status << " seconds " << asked.seconds_left;
}

Asked ask(const char* username, const zorv_call* call = nullptr) {
  zorv_block block{sizeof block, 77, 77};
  const int answer = zorv_check_block(username, &block, call);
  return {answer, block.status, block.seconds_left};
}

class Zorv : public testing::Test {
 protected:
  void start(bool with_platform = true) {
    harness::write_file(kPolicy, R"({"global": {"enable": true, "limit": 2, "time": 5}})");
    if (with_platform) {
      platform_.emplace();
    }
    daemon_.emplace();
  }
  std::optional<harness::PlatformDaemon> platform_;
  std::optional<harness::Daemon> daemon_;
};

TEST_F(Zorv, RecordsEveryMember) {
  start();
  const zorv_server_record server = alice();
  EXPECT_EQ(zorv_record_login(&server, nullptr), ZORV_DONE);
  EXPECT_EQ(zorv_record_login_failure(&server, nullptr), ZORV_DONE);
  EXPECT_EQ(zorv_record_logout(&server, nullptr), ZORV_DONE);
  const std::string row =
      "alice|2|61|1700000000|phone|192.0.2.7|10.8.0.2|-1|2|5000000000|9223372036854775807|ppp0|";
  EXPECT_EQ(sql("SELECT username, vpn_type, uptime, time, device_info, source_ip, vpn_ip, tx_rate,"
                " rx_rate, tx_total, rx_total, outgoing, action FROM conn_server_log"),
            (Texts{row + "2", row + "1", row + "3"}));
  const zorv_client_record client = office();
  EXPECT_EQ(zorv_record_client_login(&client, nullptr), ZORV_DONE);
  EXPECT_EQ(zorv_record_client_logout(&client, nullptr), ZORV_DONE);
  const std::string client_row = "nas|65536|3|1700000001|10.9.0.2|6|7|4|5|DE|198.51.100.1|";
  EXPECT_EQ(sql("SELECT username, vpn_type, uptime, time, vpn_ip, tx_rate, rx_rate, tx_total,"
                " rx_total, country_code, wan_ip, action FROM conn_client_log"),
            (Texts{client_row + "2", client_row + "3"}));
}

// An older caller's structure ends early, a newer one's goes on; what is not there is 0.
TEST_F(Zorv, TakesStructuresOfOtherSizes) {
  start();
  struct {
    zorv_server_record known;
    const char* added;
  } newer{alice(), "?"};
  newer.known.size = sizeof newer;
  EXPECT_EQ(zorv_record_login(&newer.known, nullptr), ZORV_DONE);
  zorv_server_record older = alice();
  older.size = offsetof(zorv_server_record, device_info);
  const auto before = static_cast<unsigned long long>(time(nullptr));
  EXPECT_EQ(zorv_record_login(&older, nullptr), ZORV_DONE);
  EXPECT_EQ(sql("SELECT source_ip, device_info, outgoing, uptime, rx_rate FROM conn_server_log"),
            (Texts{"192.0.2.7|phone|ppp0|61|2", "192.0.2.7|||0|0"}));
  const Texts times = sql("SELECT time FROM conn_server_log WHERE id = 2");
  EXPECT_GE(std::stoull(times.at(0)), before);
  EXPECT_LE(std::stoull(times.at(0)), static_cast<unsigned long long>(time(nullptr)));

  zorv_block block{offsetof(zorv_block, seconds_left), 77, 77};
  EXPECT_EQ(zorv_check_block("alice", &block, nullptr), ZORV_NOT_BLOCKED);
  EXPECT_EQ(block.status, ZORV_DONE);
  EXPECT_EQ(block.seconds_left, 77u) << "written behind the caller's structure";
}

TEST_F(Zorv, RefusesWrongArguments) {
  start();
  zorv_server_record server = alice();
  zorv_client_record client = office();
  zorv_block sizeless{0, 77, 77};
  const zorv_call sizeless_call{0, 0, 0};
  EXPECT_EQ(zorv_record_login(nullptr, nullptr), ZORV_INVALID);
  EXPECT_EQ(zorv_record_login(&server, &sizeless_call), ZORV_INVALID);
  server.size = 0;
  EXPECT_EQ(zorv_record_logout(&server, nullptr), ZORV_INVALID);
  server = alice();
  server.vpn_type = ZORV_PPTP_CLIENT;
  EXPECT_EQ(zorv_record_login_failure(&server, nullptr), ZORV_INVALID);
  client.vpn_type = ZORV_PPTP_SERVER;
  EXPECT_EQ(zorv_record_client_login(&client, nullptr), ZORV_INVALID);
  EXPECT_EQ(zorv_check_block("alice", &sizeless, nullptr), ZORV_UNKNOWN);
  for (const char* nobody : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(ask(nobody), (Asked{ZORV_UNKNOWN, ZORV_INVALID, 0}));
    EXPECT_EQ(zorv_count_failure(nobody, nullptr), ZORV_INVALID);
    EXPECT_EQ(zorv_forget_failures(nobody, nullptr), ZORV_INVALID);
  }
  EXPECT_EQ(sql("SELECT count(*) FROM conn_server_log"), Texts{"0"});
  EXPECT_EQ(sql("SELECT count(*) FROM privilege_user_block"), Texts{"0"});
}

// A name is one name in records, counts and blocks; what would hurt a reader does not get there.
TEST_F(Zorv, KeepsStrangeNamesHarmless) {
  start();
  const std::string x1023(1023, 'x');
  const struct {
    std::string given;
    std::string kept;
  } names[] = {
      {"a'b\"c`; DROP TABLE conn_server_log; --", "a'b\"c`; DROP TABLE conn_server_log; --"},
      {"%s%n%1$s 100%", "%s%n%1$s 100%"},
      {"a\nb\r\x1b[31m\x7f\t", "a_b__[31m__"},
      {"z\xc3\xbc\xc2\x9b\xc2\xa0", "z\xc3\xbc_\xc2\xa0"},
      {std::string(40, '\xff') + "\xc3", std::string(40, '\xff') + "\xc3"},
      {x1023 + "yz", x1023 + "y"},
      {x1023 + "\xc3\xbc", x1023},
      {std::string(100000, 'q'), std::string(1024, 'q')},
  };
  for (const auto& [given, kept] : names) {
    SCOPED_TRACE(kept.substr(0, 60));
    zorv_server_record record = alice();
    record.username = given.c_str();
    ASSERT_EQ(zorv_record_login(&record, nullptr), ZORV_DONE);
    EXPECT_EQ(sql("SELECT username FROM conn_server_log ORDER BY id DESC LIMIT 1"), Texts{kept});
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(ask(given.c_str()), (Asked{ZORV_NOT_BLOCKED, ZORV_DONE, 0}));
      ASSERT_EQ(zorv_count_failure(given.c_str(), nullptr), ZORV_DONE);
    }
    EXPECT_EQ(sql("SELECT username, limit_count FROM privilege_user_block"), Texts{kept + "|2"});
    sql("UPDATE privilege_user_block SET timestamp = timestamp + 1000");
    const Asked asked = ask(given.c_str());
    EXPECT_EQ(asked.answer, ZORV_BLOCKED);
    EXPECT_NEAR(static_cast<double>(asked.seconds_left), 1300, 30);
    EXPECT_EQ(zorv_forget_failures(given.c_str(), nullptr), ZORV_DONE);
    EXPECT_EQ(sql("SELECT count(*) FROM privilege_user_block"), Texts{"0"});
  }
}

TEST_F(Zorv, TellsBlockedFromNotBlockedFromUnknown) {
  EXPECT_EQ(ask("eve"), (Asked{ZORV_UNKNOWN, ZORV_AWAY, 0}));
  EXPECT_EQ(zorv_count_failure("eve", nullptr), ZORV_AWAY);
  start();
  for (const char* user : {"adam", "eve", "eve"}) {
    EXPECT_EQ(zorv_count_failure(user, nullptr), ZORV_DONE);
  }
  EXPECT_EQ(zorv_check_block("eve", nullptr, nullptr), ZORV_BLOCKED);
  EXPECT_EQ(zorv_check_block("adam", nullptr, nullptr), ZORV_NOT_BLOCKED);
  const struct {
    const char* seconds_ago;
    const char* minutes;
    uint64_t least;
    uint64_t most;
  } blocks[] = {
      {"100", "5", 180, 200},
      {"0", "1e30", 1000000000000000000, 1000000000000000000},
      {"0", "0.99", 40, 59},
  };
  for (const auto& [ago, minutes, least, most] : blocks) {
    harness::write_file(
        kPolicy,
        std::string(R"({"global": {"enable": true, "limit": 2, "time": )") + minutes + "}}");
    sql(std::string("UPDATE privilege_user_block SET timestamp = strftime('%s') - ") + ago +
        " WHERE username = 'eve'");
    const Asked asked = ask("eve");
    EXPECT_EQ(asked.answer, ZORV_BLOCKED) << minutes;
    EXPECT_GE(asked.seconds_left, least);
    EXPECT_LE(asked.seconds_left, most);
  }
  platform_.reset();
  EXPECT_EQ(ask("eve"), (Asked{ZORV_UNKNOWN, ZORV_NO_POLICY, 0}));
  EXPECT_EQ(zorv_count_failure("eve", nullptr), ZORV_DONE);
  platform_.emplace();
  EXPECT_EQ(zorv_forget_failures("eve", nullptr), ZORV_DONE);
  EXPECT_EQ(ask("eve"), (Asked{ZORV_NOT_BLOCKED, ZORV_DONE, 0}));

  daemon_->process().send(SIGSTOP);
  EXPECT_EQ(ask("eve", &kQuick), (Asked{ZORV_UNKNOWN, ZORV_TIMED_OUT, 0}));
  const zorv_server_record record = alice();
  EXPECT_EQ(zorv_record_login(&record, &kQuick), ZORV_TIMED_OUT);
  daemon_->process().send(SIGCONT);
  EXPECT_EQ(ask("eve"), (Asked{ZORV_NOT_BLOCKED, ZORV_DONE, 0}));
}

// Whoever has the daemon's name answers as it likes: at worst a user is "blocked" for an unknown
// time.
TEST_F(Zorv, SurvivesAnythingInTheDaemonsPlace) {
  const Asked unsure{ZORV_BLOCKED, ZORV_DONE, ZORV_SECONDS_UNKNOWN};
  const std::string head(24, '\xff');
  const harness::FakeService policy("vpncaas", "read_json", R"({"error": 0})");
  const struct {
    std::optional<std::string> check;
    std::optional<std::string> query;
    Asked expected;
  } cases[] = {
      {"-1", "", {ZORV_UNKNOWN, ZORV_NO_POLICY, 0}},
      {"", "", {ZORV_UNKNOWN, ZORV_NO_POLICY, 0}},
      {std::string(100000, '1'), "", {ZORV_UNKNOWN, ZORV_NO_POLICY, 0}},
      {std::nullopt, "", {ZORV_UNKNOWN, ZORV_REFUSED, 0}},
      {"1", std::nullopt, unsure},
      {"1", "", unsure},
      {"1", head, unsure},
      {"1", head + std::string(1048, '\xff'), {ZORV_BLOCKED, ZORV_DONE, 0}},
  };
  for (const auto& [check, query, expected] : cases) {
    const harness::FakeService fake(
        kZorvd, {{"db_privilege_user_block_check", [check = check] { return check; }},
                 {"db_privilege_user_block_query", [query = query] { return query; }}});
    EXPECT_EQ(ask("eve"), expected) << check.value_or("none") << " " << query.value_or("none");
    EXPECT_EQ(zorv_count_failure("eve", nullptr), ZORV_INVALID);
  }
}

// The row alone tells nothing without a policy; whatever its service says.
TEST_F(Zorv, SurvivesAnythingInThePolicysPlace) {
  std::string row(24 + 1048, '\0');
  row[0] = row[8] = 1;
  const harness::FakeService fake(kZorvd, {{"db_privilege_user_block_check", [] { return "1"; }},
                                           {"db_privilege_user_block_query", [=] { return row; }}});
  EXPECT_EQ(ask("eve").seconds_left, ZORV_SECONDS_UNKNOWN);
  const struct {
    const char* reply;
    uint64_t seconds_left;
  } replies[] = {{"", ZORV_SECONDS_UNKNOWN},
                 {"[", ZORV_SECONDS_UNKNOWN},
                 {R"({"error": 1, "data": {"global": {"enable": true}}})", ZORV_SECONDS_UNKNOWN},
                 {R"({"data": {"global": {"enable": true}}})", ZORV_SECONDS_UNKNOWN},
                 {R"({"error": 0, "data": {"global": {"enable": true, "time": -3}}})", 0},
                 {R"({"error": 0, "data": {"global": {"enable": 1, "time": 1e30}}})", 0},
                 {R"({"error": 0})", 0}};
  for (const auto& [reply, seconds_left] : replies) {
    const harness::FakeService policy("vpncaas", "read_json", reply);
    EXPECT_EQ(ask("eve"), (Asked{ZORV_BLOCKED, ZORV_DONE, seconds_left})) << reply;
    EXPECT_EQ(policy.calls(), Texts{R"(read_json {"path": "/etc/config/vpn_block.conf"})"});
  }
}

// One deadline for all questions of a call: two slow answers use it up, and the third is not asked.
TEST_F(Zorv, SharesTheDeadlineAmongItsQuestions) {
  const auto slowly = [](std::string answer) {
    return [=] {
      std::this_thread::sleep_for(std::chrono::milliseconds(1200));
      return answer;
    };
  };
  std::string row(24 + 1048, '\0');
  row[0] = row[8] = 1;
  const harness::FakeService fake(kZorvd, {{"db_privilege_user_block_check", slowly("1")},
                                           {"db_privilege_user_block_query", slowly(row)}});
  const harness::FakeService policy("vpncaas", "read_json", R"({"error": 0})");
  const zorv_call call{sizeof call, 2000, 0};
  EXPECT_EQ(ask("eve", &call), (Asked{ZORV_BLOCKED, ZORV_DONE, ZORV_SECONDS_UNKNOWN}));
  EXPECT_EQ(policy.calls(), Texts{});
}

// A stranger who has taken the daemon's name is not told anything, and the refused allow list, of
// which the bus would speak on standard error, is not spoken of.
TEST_F(Zorv, TellsASquatterNothing) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can be somebody else";
  }
  mkdir((harness::test_root() + "/etc/config/kxbus").c_str(), 0755);
  harness::write_file("/etc/config/kxbus/zorvd.allow", "server 12345\n");
  chmod((harness::test_root() + "/etc/config/kxbus/zorvd.allow").c_str(), 0666);
  chmod(harness::test_root().c_str(), 0777);
  std::optional<harness::FakeService> squatter;
  ASSERT_EQ(seteuid(12345), 0);
  squatter.emplace(kZorvd, "db_privilege_user_block_check", "1");
  ASSERT_EQ(seteuid(0), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ask("eve"), (Asked{ZORV_UNKNOWN, ZORV_REFUSED, 0}));
  EXPECT_EQ(zorv_count_failure("eve", nullptr), ZORV_REFUSED);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(squatter->calls(), Texts{});
}

TEST_F(Zorv, LogsOnlyWhereAsked) {
  start();
  daemon_.reset();
  harness::write_file(harness::kLogFile, "");
  const zorv_call logging{sizeof logging, 0, ZORV_LOG_LINES};
  const zorv_server_record record = alice();
  EXPECT_EQ(zorv_record_login(&record, nullptr), ZORV_AWAY);
  EXPECT_EQ(zorv_check_block("eve", nullptr, nullptr), ZORV_UNKNOWN);
  EXPECT_EQ(harness::read_file(harness::kLogFile), "");
  EXPECT_EQ(zorv_count_failure("a\n%s", &logging), ZORV_AWAY);
  const std::vector<harness::LogLine> lines = harness::log_lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level + " " + lines[0].module + " " + lines[0].function + ":" + lines[0].text,
            "ERROR libzorv zorv_count_failure:a_%s: the daemon does not run\n");
}

TEST_F(Zorv, ServesThreadsAtOnce) {
  start();
  constexpr int kThreads = 8;
  constexpr int kCalls = 20;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i] {
      const zorv_call call{sizeof call, 60000, ZORV_LOG_LINES};
      const std::string name = "user" + std::to_string(i);
      for (int j = 0; j < kCalls; ++j) {
        EXPECT_EQ(zorv_count_failure(name.c_str(), &call), ZORV_DONE);
        EXPECT_EQ(zorv_check_block(name.c_str(), nullptr, &call), j < 1 ? 0 : ZORV_BLOCKED);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(sql("SELECT count(*), min(limit_count), max(limit_count) FROM privilege_user_block"),
            Texts{"8|20|20"});
}

TEST(ZorvWords, NamesKindsAndStatuses) {
  EXPECT_EQ(zorv_server_type("OpenVPN"), ZORV_OPENVPN_SERVER);
  EXPECT_EQ(zorv_server_type("l2tp"), ZORV_L2TP_SERVER);
  for (const char* unknown : {static_cast<const char*>(nullptr), "", "l2tp ", "ocserv"}) {
    EXPECT_EQ(zorv_server_type(unknown), 0);
  }
  EXPECT_EQ(zorv_client_type(ZORV_WIREGUARD_SERVER), ZORV_WIREGUARD_CLIENT);
  EXPECT_EQ(zorv_client_type(ZORV_WIREGUARD_CLIENT), 0);
  EXPECT_STREQ(zorv_status_text(ZORV_DONE), "done");
  EXPECT_STREQ(zorv_status_text(ZORV_NO_MEMORY), "no memory");
  for (const int unknown : {-1, ZORV_NO_MEMORY + 1, INT_MIN, INT_MAX}) {
    EXPECT_STREQ(zorv_status_text(unknown), "unknown status");
  }
}

}  // namespace
