// The OpenVPN hook, from the environment of a real server's scripts to the daemon's database; and
// environments that nobody means well.
#include <gtest/gtest.h>

#include <limits>
#include <thread>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/test_root.h"
#include "openvpn_environment.h"
#include "zorv_api_db.h"

namespace {

using namespace std::string_literals;
using harness::Daemon;
using harness::Outcome;
using harness::sql;
using harness::zorvctl;
using zorvctl::Environment;
using Lines = std::vector<std::string>;

constexpr std::time_t kNow = 1800000000;

Lines recorded(const std::string& script) {
  const std::string path = ZORV_SOURCE "/tests/data/openvpn-" + script + ".env";
  return harness::lines_of(harness::run({"/bin/cat", path}).out);
}

// As OpenVPN runs it: with its own variables and no others.
Outcome hook(const Lines& variables, const Lines& arguments = {}) {
  Lines words{"/usr/bin/env", "-i", "PATH=/usr/bin:/bin", "ZORV_ROOT=" + harness::test_root()};
  words.insert(words.end(), variables.begin(), variables.end());
  words.insert(words.end(), {harness::program("zorvctl"), "hook", "openvpn"});
  words.insert(words.end(), arguments.begin(), arguments.end());
  return harness::run(words);
}

Lines failures() {
  return sql("SELECT username, limit_count FROM privilege_user_block ORDER BY id");
}

TEST(Hook, RecordsALoginAndALogout) {
  const Daemon daemon;
  const std::string device = "linux, OpenVPN 2.6.14, OpenSSL_3.0.19_27_Jan_2026";
  EXPECT_EQ(hook(recorded("client-connect"), {"/tmp/openvpn_cc_1.tmp"}).status, 0);
  EXPECT_EQ(hook(recorded("client-disconnect")).status, 0);
  EXPECT_EQ(sql("SELECT username, vpn_type, uptime, time, source_ip, vpn_ip, tx_total, rx_total, "
                "outgoing, action, device_info FROM conn_server_log"),
            (Lines{"alice|4|0|1795234206|10.99.0.2|10.8.0.2|0|0|tun0|2|" + device,
                   "alice|4|11|1795234217|10.99.0.2|10.8.0.2|2622|2621|tun0|3|" + device}));
}

TEST(Hook, WithoutTheDaemonNobodyIsRefusedAndTheCheckerDecides) {
  for (const char* script : {"client-connect", "client-disconnect", "user-pass-verify"}) {
    const Outcome outcome = hook(recorded(script), {"/tmp/file"});
    EXPECT_EQ(outcome.status, 0) << script;
    EXPECT_NE(outcome.err.find("the daemon is not running"), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("alice"), std::string::npos) << outcome.err;
  }
  EXPECT_EQ(hook({"script_type=tls-verify"}, {"0", "CN=alice"}).status, 0);
  EXPECT_EQ(hook(recorded("user-pass-verify"), {"--", "false"}).status, 1);
  EXPECT_EQ(hook(recorded("user-pass-verify"), {"--", "true"}).status, 0);
}

TEST(Hook, WordsThatAreWrongRefuseAndNeverAcceptOrDefer) {
  const struct {
    std::string script;
    Lines words;
    const char* named;
    bool via_env = false;
  } cases[] = {
      {"user-pass-verify", {"/bin/true", "/tmp/file"}, "'/bin/true'"},
      {"user-pass-verify", {"--checker", "/bin/true"}, "'--checker'"},
      {"user-pass-verify", {"--help"}, "'--help'"},
      {"user-pass-verify", {"--"}, "behind --"},
      {"user-pass-verify", {"/bin/true"}, "'/bin/true'", true},
      {"user-pass-verify", {"X", "--", "sh", "-c", "exit 0"}, "'X'"},
      {"client-connect", {"a", "--", "b"}, "'a'"},
      {"", {}, "script_type"},
  };
  for (const auto& one : cases) {
    Lines variables{"script_type=" + one.script, "username=alice"};
    if (one.via_env) {
      variables.emplace_back("password=secret");
    }
    const Outcome outcome = hook(variables, one.words);
    EXPECT_EQ(outcome.status, 1) << testing::PrintToString(one.words);
    EXPECT_NE(outcome.err.find(one.named), std::string::npos) << one.named << outcome.err;
  }
  EXPECT_EQ(hook({"script_type=user-pass-verify", "username=a", "password=b"}).status, 0);
}

TEST(Hook, TakesATimeOutForNoAnswerAndAsksNoMore) {
  // 1 is the status of a time-out, and what the client function says of a blocked user.
  const harness::RawSocket listener = harness::RawSocket::listening(kZorvdAddress);
  std::thread daemon([&] {
    const harness::RawSocket caller = listener.accept();
    caller.receive();
    caller.send(harness::Frame{.kind = 2, .detail = KX_TIMEOUT, .method = ""}.bytes());
  });
  const Outcome outcome = hook(recorded("user-pass-verify"), {"--", "false"});
  daemon.join();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "zorvctl: hook: alice may be blocked, the login goes on unchecked and unrecorded: the "
            "daemon did not answer in time\n");
}

TEST(Hook, LetsTheCheckerDecideAndCountsItsRefusals) {
  const Daemon daemon;
  const struct {
    Lines arguments;
    int status;
    size_t failures;  // counted and recorded
  } cases[] = {
      {{"--", "true"}, 0, 0},
      {{"--", "false"}, 1, 1},
      {{"--", "sh", "-c", "exit 2"}, 2, 0},  // deferred
      {{"--", "sh", "-c", "exit 3"}, 1, 1},
      {{"--", "sh", "-c", "kill -9 $$"}, 1, 0},  // says nothing about the password
      {{"--", "sh", "-c", "no-such-program"}, 1, 0},
      {{"--", "/no/such/checker", "/tmp/file"}, 1, 0},
      // Its words arrive as they are, the file last, and it sees OpenVPN's variables.
      {{"--", "sh", "-c", "test \"$1|$2|$3|$username\" = '[a]|--|/tmp/file|alice'", "sh", "[a]",
        "--", "/tmp/file"},
       0,
       0},
  };
  size_t counted = 0;
  for (const auto& one : cases) {
    const Outcome outcome = hook(recorded("user-pass-verify"), one.arguments);
    counted += one.failures;
    EXPECT_EQ(outcome.status, one.status) << one.arguments.back() << outcome.err;
    EXPECT_EQ(sql("SELECT username, vpn_type, source_ip, vpn_ip, action FROM conn_server_log"),
              Lines(counted, "alice|4|10.99.0.2||1"))
        << one.arguments.back();
  }
  // Nobody guessed anything here.
  Lines expired = recorded("user-pass-verify");
  expired.emplace_back("session_state=Expired");
  EXPECT_EQ(hook(expired, {"--", "false"}).status, 1);
  EXPECT_EQ(failures(), Lines{"alice|2"});
}

TEST(Hook, RefusesABlockedUserUntilTheBlockIsLifted) {
  const Daemon daemon;
  const harness::PlatformDaemon platform;
  harness::write_file("/etc/config/vpn_block.conf",
                      R"({"global": {"enable": true, "limit": 3, "time": 5}})");
  for (const int expected : {0, 0, 0, 4}) {
    EXPECT_EQ(zorvctl({"block", "check", "alice"}).status, expected);
    EXPECT_EQ(zorvctl({"block", "fail", "alice"}).status, 0);
  }
  // Before the checker, which would have let her in.
  const Outcome refused = hook(recorded("user-pass-verify"), {"--", "true"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("alice is refused: blocked"), std::string::npos) << refused.err;
  EXPECT_EQ(sql("SELECT username, action FROM conn_server_log"), Lines{"alice|1"});
  EXPECT_EQ(failures(), Lines{"alice|4"});

  // With "via-file" the name may stand in the file alone.
  const std::string script = "script_type=user-pass-verify";
  harness::write_file("/tmp-credentials", "alice\nsecret\n");
  EXPECT_EQ(hook({script}, {harness::test_root() + "/tmp-credentials"}).status, 1);
  EXPECT_EQ(hook({script}, {"/no/such/file"}).status, 0);
  EXPECT_EQ(hook({script, "username=bob"}).status, 0);

  const std::string table = zorvctl({"block", "list", "-q"}).out;
  EXPECT_NE(table.find("blocked"), std::string::npos) << table;
  EXPECT_NE(table.find(" min "), std::string::npos) << table;
  EXPECT_EQ(zorvctl({"block", "remove", "alice"}).status, 0);
  EXPECT_EQ(hook(recorded("user-pass-verify"), {"--", "true"}).status, 0);
  EXPECT_EQ(zorvctl({"block", "list", "-j"}).out, "");
}

TEST(OpenVpn, WhatIsMissingHasAStandIn) {
  using zorvctl::is_expired_token;
  using zorvctl::login_name;
  using zorvctl::login_record;
  EXPECT_EQ(login_name({{"common_name", "cert"}, {"username", ""}}), "cert");
  EXPECT_EQ(login_name({{"common_name", "cert"}, {"username", "user"}}), "user");
  EXPECT_STREQ(login_record({{"trusted_ip6", "2001:db8::1"}}, kNow).source_ip, "2001:db8::1");
  EXPECT_STREQ(login_record({{"ifconfig_pool_remote_ip6", "fd00::2"}}, kNow).vpn_ip, "fd00::2");
  const auto now = static_cast<unsigned long long>(kNow);
  EXPECT_EQ(login_record({}, kNow).time, now);
  EXPECT_EQ(zorvctl::logout_record({{"time_duration", "11"}}, kNow).time, now);
  EXPECT_EQ(zorvctl::failed_login_record({}, kNow).time, now);
  EXPECT_TRUE(is_expired_token({{"session_state", "ExpiredEmptyUser"}}));
  EXPECT_FALSE(is_expired_token({{"session_state", "AuthenticatedEmptyUser"}}));
  const char* entries[] = {"A=1", "B=x=y", "C=", "no equals sign", "=nameless", "A=2", nullptr};
  EXPECT_EQ(zorvctl::environment_of(entries),
            (Environment{{"A", "1"}, {"B", "x=y"}, {"C", ""}, {"", "nameless"}}));
}

TEST(OpenVpn, NumbersThatAreNoneLoseNoRecord) {
  constexpr long long kMost = std::numeric_limits<long long>::max();
  const std::pair<const char*, long long> cases[] = {
      {"2622", 2622},
      {"", 0},
      {"-1", 0},
      {"12x", 0},
      {"9223372036854775808", kMost},
      {"99999999999999999999999999", kMost},
  };
  for (const auto& [text, number] : cases) {
    const auto record = zorvctl::logout_record({{"username", "u"},
                                                {"bytes_sent", text},
                                                {"bytes_received", text},
                                                {"time_duration", text}},
                                               kNow);
    EXPECT_EQ(record.uptime, static_cast<unsigned long long>(number)) << text;
    EXPECT_EQ(record.tx_total, number) << text;
    EXPECT_EQ(record.rx_total, number) << text;
    EXPECT_STREQ(record.username, "u");
  }
  // A login and a duration whose sum is no time.
  const Environment endless{{"time_unix", "18446744073709551615"}, {"time_duration", "1"}};
  EXPECT_EQ(zorvctl::logout_record(endless, kNow).time, static_cast<unsigned long long>(kNow));
  EXPECT_EQ(zorvctl::login_record(endless, kNow).time, static_cast<unsigned long long>(kMost));
}

TEST(OpenVpn, TextsAreCutBetweenTwoCharacters) {
  std::string euros;
  while (euros.size() < 3000) {
    euros += "\xE2\x82\xAC";
  }
  const Environment environment{{"username", euros},
                                {"IV_PLAT", euros},
                                {"trusted_ip", euros},
                                {"dev", std::string(1 << 20, '\xff')},
                                {"ifconfig_pool_remote_ip", euros}};
  const auto record = zorvctl::login_record(environment, kNow);
  for (const char* field : {record.username, record.device_info, record.source_ip, record.vpn_ip}) {
    EXPECT_EQ(field, euros.substr(0, 1023));
  }
  EXPECT_EQ(record.outgoing, std::string(1024, '\xff'));
}

}  // namespace
