// The shared library against the real daemon, and what may stand in the daemon's place.
#include "zorv.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "harness/daemon.h"
#include "harness/fake_service.h"

namespace {

using harness::sql;
using Texts = std::vector<std::string>;

constexpr zorv_server_record kAlice{sizeof kAlice, 2,      "alice", "192.0.2.7", "10.8.0.2",
                                    "phone",       "ppp0", 1700,    61,          5000000000,
                                    UINT64_MAX,    -1,     2};
constexpr zorv_client_record kOffice{sizeof kOffice, 65536, "nas", "10.9.0.2", "192.0.2.1", "DEU",
                                     1800,           3,     4,     5,          6,           7};

// "ANSWER STATUS SECONDS_LEFT".
std::string ask(const char* username, uint32_t deadline_ms = 0) {
  const zorv_call call{sizeof call, deadline_ms, 0};
  zorv_block block{sizeof block, 77, 77};
  const int answer = zorv_check_block(username, &block, &call);
  const bool is_open = block.seconds_left == ZORV_SECONDS_UNKNOWN;
  return std::to_string(answer) + " " + std::to_string(block.status) + " " +
         (is_open ? "?" : std::to_string(block.seconds_left));
}

TEST(Zorv, RecordsEveryMemberThatTheCallerKnows) {
  const harness::Daemon daemon;
  EXPECT_EQ(zorv_record_login(&kAlice, nullptr), ZORV_DONE);
  EXPECT_EQ(zorv_record_login_failure(&kAlice, nullptr), ZORV_DONE);
  // A newer caller's structure goes on, an older one's ends early; what is not there is 0.
  std::pair newer{kAlice, "?"};
  newer.first.size = sizeof newer;
  zorv_server_record older = kAlice;
  older.size = offsetof(zorv_server_record, device_info);
  EXPECT_EQ(zorv_record_logout(&newer.first, nullptr), ZORV_DONE);
  EXPECT_EQ(zorv_record_login(&older, nullptr), ZORV_DONE);
  EXPECT_EQ(zorv_record_client_login(&kOffice, nullptr), ZORV_DONE);
  EXPECT_EQ(zorv_record_client_logout(&kOffice, nullptr), ZORV_DONE);
  const std::string server =
      "alice|2|61|1700|phone|192.0.2.7|10.8.0.2|-1|2|5000000000|9223372036854775807|ppp0|";
  EXPECT_EQ(sql("SELECT * FROM conn_server_log WHERE id < 4"),
            (Texts{"1|" + server + "2", "2|" + server + "1", "3|" + server + "3"}));
  EXPECT_EQ(sql("SELECT source_ip, device_info, strftime('%s') - time BETWEEN 0 AND 60 "
                "FROM conn_server_log WHERE id = 4"),
            Texts{"192.0.2.7||1"});
  const std::string client = "nas|65536|3|1800|10.9.0.2|6|7|4|5|DE|192.0.2.1|";
  EXPECT_EQ(sql("SELECT * FROM conn_client_log"),
            (Texts{"1|" + client + "2", "2|" + client + "3"}));
}

// Before the daemon, which is away, is asked.
TEST(Zorv, RefusesWrongArguments) {
  const zorv_call sizeless_call{0, 0, 0};
  zorv_server_record client_kind = kAlice;
  client_kind.vpn_type = ZORV_PPTP_CLIENT;
  EXPECT_EQ(zorv_record_login(nullptr, nullptr), ZORV_INVALID);
  EXPECT_EQ(zorv_record_login(&kAlice, &sizeless_call), ZORV_INVALID);
  EXPECT_EQ(zorv_record_login_failure(&client_kind, nullptr), ZORV_INVALID);
  EXPECT_EQ(ask(nullptr) + ", " + ask(""), "2 7 0, 2 7 0");
}

TEST(Zorv, LetsRecordsWaitWhereAsked) {
  const zorv_call call{sizeof call, 0, ZORV_SPOOL};
  zorv_server_record now = kAlice;
  now.time = 0;
  EXPECT_EQ(zorv_record_login(&now, &call), ZORV_AWAY) << "there is no spool";
  std::filesystem::create_directories(harness::test_root() + "/var/spool/zorv");
  EXPECT_EQ(zorv_record_login(&now, &call), ZORV_SPOOLED);
  EXPECT_EQ(zorv_record_client_logout(&kOffice, &call), ZORV_SPOOLED);
  EXPECT_EQ(zorv_record_login(&kAlice, nullptr), ZORV_AWAY);
  EXPECT_EQ(zorv_count_failure("alice", &call), ZORV_AWAY);
  const harness::Daemon daemon;
  EXPECT_EQ(zorv_record_login(&kAlice, &call), ZORV_DONE);
  EXPECT_EQ(harness::zorvctl({"spool", "deliver"}).out, "2 records delivered\n");
  EXPECT_EQ(sql("SELECT username, strftime('%s') - time BETWEEN 0 AND 60 FROM conn_server_log"),
            (Texts{"alice|0", "alice|1"}));
  EXPECT_EQ(sql("SELECT username, time, action FROM conn_client_log"), Texts{"nas|1800|3"});
}

// A name is one name in records, counts and blocks; what would hurt a reader does not get there.
TEST(Zorv, KeepsStrangeNamesHarmless) {
  const harness::Daemon daemon;
  const std::string x1023(1023, 'x');
  const std::pair<std::string, std::string> names[] = {
      {"a\nb\x7f\t\xc2\x9b\xc2\xa0", "a_b___\xc2\xa0"},
      {std::string(40, '\xff') + "\xc3", std::string(40, '\xff') + "\xc3"},
      {x1023 + "yz", x1023 + "y"},
      {x1023 + "\xc3\xbc", x1023},
  };
  for (const auto& [given, kept] : names) {
    zorv_server_record record = kAlice;
    record.username = given.c_str();
    EXPECT_EQ(zorv_record_login(&record, nullptr), ZORV_DONE);
    EXPECT_EQ(zorv_count_failure(given.c_str(), nullptr), ZORV_DONE);
    EXPECT_EQ(sql("SELECT username FROM conn_server_log ORDER BY id DESC LIMIT 1"), Texts{kept});
    EXPECT_EQ(sql("SELECT username FROM privilege_user_block"), Texts{kept});
    EXPECT_EQ(zorv_forget_failures(given.c_str(), nullptr), ZORV_DONE);
  }
}

TEST(Zorv, TellsBlockedFromNotBlockedFromUnknown) {
  EXPECT_EQ(ask("eve"), "2 2 0") << "away";
  const harness::Daemon daemon;
  EXPECT_EQ(ask("eve"), "2 8 0") << "no policy";
  const harness::PlatformDaemon platform;
  harness::write_file("/etc/config/vpn_block.conf",
                      R"({"global": {"enable": true, "limit": 2, "time": 5}})");
  for (const char* user : {"adam", "eve\n", "eve_"}) {
    EXPECT_EQ(zorv_count_failure(user, nullptr), ZORV_DONE);
  }
  // Of the block's time what is left, and of the user's own row.
  sql("UPDATE privilege_user_block SET timestamp = timestamp - iif(username = 'adam', 250, 100)");
  zorv_block block{sizeof block, 77, 77};
  EXPECT_EQ(zorv_check_block("eve\n", &block, nullptr), ZORV_BLOCKED);
  EXPECT_GE(block.seconds_left, 180U);
  EXPECT_LE(block.seconds_left, 200U);
  block = {offsetof(zorv_block, seconds_left), 77, 77};
  EXPECT_EQ(zorv_check_block("adam", &block, nullptr), ZORV_NOT_BLOCKED);
  EXPECT_EQ(block.seconds_left, 77U) << "written behind the caller's structure";
}

// Where the time is not told, or not in time, a user is "blocked" for an unknown one.
TEST(Zorv, SurvivesAnything) {
  const std::string row_of_anybody = std::string("\1\0\0\0\0\0\0\0\1", 9) + std::string(1063, '\0');
  const struct {
    int pause_ms;  // before the first and the last of the three answers
    std::string query;
    std::string policy;
    const char* expected;
  } rows[] = {
      {0, row_of_anybody, R"({"error": 0})", "1 0 0"},
      {1200, row_of_anybody, R"({"error": 0})", "1 0 ?"},
      {0, std::string(24, '\xff'), R"({"error": 0})", "1 0 ?"},
      {0, row_of_anybody, R"({"error": 1, "data": {"global": {"enable": true}}})", "1 0 ?"},
  };
  for (const auto& row : rows) {
    const auto slowly = [&row](const std::string& answer) {
      std::this_thread::sleep_for(std::chrono::milliseconds(row.pause_ms));
      return answer;
    };
    const harness::FakeService policy("vpncaas",
                                      {{"read_json", [&] { return slowly(row.policy); }}});
    const harness::FakeService zorvd(
        "@/var/run/zorvd.sock", {{"db_privilege_user_block_check", [&] { return slowly("1"); }},
                                 {"db_privilege_user_block_query", [&] { return row.query; }}});
    EXPECT_EQ(ask("eve", 2000), row.expected) << &row - rows;
  }
}

// The bus, which would speak of the allow list when somebody else has the daemon's name, is silent.
TEST(Zorv, SpeaksOnlyWhereAsked) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can be somebody else";
  }
  mkdir((harness::test_root() + "/etc/config/kxbus").c_str(), 0755);
  harness::write_file("/etc/config/kxbus/zorvd.allow", "nonsense\n");
  chmod(harness::test_root().c_str(), 0777);
  ASSERT_EQ(seteuid(12345), 0);
  const harness::FakeService squatter("@/var/run/zorvd.sock", {});
  ASSERT_EQ(seteuid(0), 0);
  testing::internal::CaptureStderr();
  const zorv_call logging{sizeof logging, 0, ZORV_LOG_LINES};
  EXPECT_EQ(zorv_record_login(&kAlice, nullptr), ZORV_REFUSED);
  EXPECT_EQ(zorv_count_failure("a\n%s", &logging), ZORV_REFUSED);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(harness::log_texts("libzorv"),
            Texts{std::string("ERROR a_%s: ") + zorv_status_text(ZORV_REFUSED) + "\n"});
}

}  // namespace
