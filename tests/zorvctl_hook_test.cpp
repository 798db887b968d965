// The OpenVPN hook, blocked users and the global options, from the command line to the daemon's
// database and back.

#include <gtest/gtest.h>
#include <jansson.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "harness/daemon.h"
#include "harness/test_root.h"

using harness::Daemon;
using harness::Outcome;
using harness::PlatformDaemon;

namespace {

Outcome zorvctl(std::vector<std::string> words, const std::string& input = "") {
  words.insert(words.begin(), harness::program("zorvctl"));
  return harness::run(words, input);
}

using Variables = std::vector<std::string>;

Variables recorded(const std::string& script) {
  std::ifstream file(ZORV_SOURCE "/tests/data/openvpn-" + script + ".env");
  Variables variables;
  for (std::string line; std::getline(file, line);) {
    variables.push_back(line);
  }
  EXPECT_FALSE(variables.empty());
  return variables;
}

// As OpenVPN runs it: with its own variables and no others.
Outcome hook(const Variables& variables, const std::vector<std::string>& arguments = {}) {
  std::vector<std::string> words{"/usr/bin/env", "-i", "PATH=/usr/bin:/bin",
                                 "ZORV_ROOT=" + harness::test_root()};
  words.insert(words.end(), variables.begin(), variables.end());
  words.insert(words.end(), {harness::program("zorvctl"), "hook", "openvpn"});
  words.insert(words.end(), arguments.begin(), arguments.end());
  return harness::run(words);
}

void write_policy(const std::string& policy) {
  harness::write_file("/etc/config/vpn_block.conf", "{\"global\": " + policy + "}");
}

constexpr const char* kFailures =
    "SELECT username, limit_count FROM privilege_user_block ORDER BY id";
constexpr const char* kLog = "SELECT username, action FROM conn_server_log ORDER BY id";

TEST(Hook, RecordsALoginAndALogout) {
  const Daemon daemon;
  EXPECT_EQ(hook(recorded("client-connect"), {"/tmp/openvpn_cc_1.tmp"}).status, 0);
  EXPECT_EQ(hook(recorded("client-disconnect")).status, 0);
  const std::string table = zorvctl({"server-log", "list"}).out;
  for (const char* word : {"alice", "OpenVPN", "Login OK", "Logout", "10.99.0.2", "10.8.0.2",
                           "11 s", "2622 B", "2621 B"}) {
    EXPECT_NE(table.find(word), std::string::npos) << word << "\n" << table;
  }
  EXPECT_EQ(harness::sql("SELECT username, vpn_type, uptime, time, source_ip, vpn_ip, tx_total, "
                         "rx_total, outgoing, action FROM conn_server_log ORDER BY id"),
            (std::vector<std::string>{
                "alice|4|0|1795234206|10.99.0.2|10.8.0.2|0|0|tun0|2",
                "alice|4|11|1795234217|10.99.0.2|10.8.0.2|2622|2621|tun0|3",
            }));
}

TEST(Hook, NeverRefusesAClientBecauseTheDaemonIsAway) {
  for (const char* script : {"client-connect", "client-disconnect", "user-pass-verify"}) {
    const Outcome outcome = hook(recorded(script), {"/tmp/file"});
    EXPECT_EQ(outcome.status, 0) << script;
    EXPECT_NE(outcome.err.find("the daemon is not running"), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("alice"), std::string::npos) << outcome.err;
  }
  EXPECT_EQ(hook({"script_type=tls-verify"}).status, 0);
}

TEST(Hook, TakesADaemonThatHangsForOneThatIsAway) {
  // 1 is "blocked" and the bus's status for a time-out alike.
  Daemon daemon;
  daemon.process().send(SIGSTOP);
  const Outcome outcome = hook(recorded("user-pass-verify"));
  daemon.process().send(SIGCONT);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(outcome.err.find("did not answer in time"), std::string::npos) << outcome.err;
}

struct CheckerCase {
  std::vector<std::string> arguments;
  int status;
  int failures;  // counted and recorded
};

TEST(Hook, LetsTheCheckerDecideAndCountsItsRefusals) {
  const Daemon daemon;
  const CheckerCase cases[] = {
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
  int failures = 0;
  for (const CheckerCase& one : cases) {
    const Outcome outcome = hook(recorded("user-pass-verify"), one.arguments);
    failures += one.failures;
    EXPECT_EQ(outcome.status, one.status) << one.arguments.back() << outcome.err;
    EXPECT_EQ(harness::sql(kLog),
              std::vector<std::string>(static_cast<size_t>(failures), "alice|1"))
        << one.arguments.back();
  }
  EXPECT_EQ(harness::sql(kFailures), std::vector<std::string>{"alice|2"});
  // Nobody guessed anything here.
  Variables expired = recorded("user-pass-verify");
  expired.emplace_back("session_state=Expired");
  EXPECT_EQ(hook(expired, {"--", "false"}).status, 1);
  EXPECT_EQ(harness::sql(kFailures), std::vector<std::string>{"alice|2"});
}

TEST(Hook, NeverSkipsTheCheckerBecauseTheDaemonIsAway) {
  EXPECT_EQ(hook(recorded("user-pass-verify"), {"--", "false"}).status, 1);
  EXPECT_EQ(hook(recorded("user-pass-verify"), {"--", "true"}).status, 0);
}

TEST(Hook, RefusesABlockedUserUntilTheBlockIsLifted) {
  const Daemon daemon;
  const PlatformDaemon platform;
  write_policy(R"({"enable": true, "limit": 3, "time": 5})");
  for (const int expected : {0, 0, 0, 4}) {
    EXPECT_EQ(zorvctl({"block", "check", "alice"}).status, expected);
    EXPECT_EQ(zorvctl({"block", "fail", "alice"}).status, 0);
  }
  // Before the checker, which would have let her in.
  const Outcome refused = hook(recorded("user-pass-verify"), {"--", "true"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("alice is refused: blocked"), std::string::npos) << refused.err;
  EXPECT_EQ(harness::sql(kLog), std::vector<std::string>{"alice|1"});
  EXPECT_EQ(harness::sql(kFailures), std::vector<std::string>{"alice|4"});

  // With "via-file" the name may stand in the file alone.
  harness::write_file("/tmp-credentials", "alice\nsecret\n");
  EXPECT_EQ(
      hook({"script_type=user-pass-verify"}, {harness::test_root() + "/tmp-credentials"}).status,
      1);
  EXPECT_EQ(hook({"script_type=user-pass-verify"}, {"/no/such/file"}).status, 0);
  EXPECT_EQ(hook({"script_type=user-pass-verify", "username=bob"}).status, 0);

  const std::string table = zorvctl({"block", "list", "-q"}).out;
  EXPECT_NE(table.find("blocked"), std::string::npos) << table;
  EXPECT_NE(table.find(" min "), std::string::npos) << table;
  EXPECT_EQ(zorvctl({"block", "remove", "alice"}).status, 0);
  EXPECT_EQ(hook(recorded("user-pass-verify"), {"--", "true"}).status, 0);
  EXPECT_EQ(zorvctl({"block", "list", "-j"}).out, "");
}

TEST(BlockCommand, ListsUsersWhoseStateIsUnknown) {
  const Daemon daemon;
  EXPECT_EQ(zorvctl({"block", "fail", "bob"}).status, 0);
  const Outcome list = zorvctl({"block", "list"});
  EXPECT_EQ(list.status, 0);
  EXPECT_NE(list.out.find("bob"), std::string::npos);
  EXPECT_NE(list.out.find("unknown"), std::string::npos) << list.out;
  EXPECT_NE(list.err.find("vpn_block.conf"), std::string::npos) << list.err;
  EXPECT_EQ(zorvctl({"block", "policy"}).status, 1);
  EXPECT_EQ(zorvctl({"block", "clean"}).status, 2);
  EXPECT_EQ(zorvctl({"block", "clean", "--all"}).status, 0);
  EXPECT_EQ(harness::sql(kFailures), std::vector<std::string>{});
}

TEST(BlockCommand, ShowsThePolicy) {
  const PlatformDaemon platform;
  write_policy(R"({"enable": true, "limit": 3, "time": 1.5})");
  const Outcome policy = zorvctl({"block", "policy", "-j"});
  EXPECT_EQ(policy.status, 0) << policy.err;
  EXPECT_EQ(policy.out, "{\"enable\": true, \"limit\": 3, \"time\": 1.5}\n");
  EXPECT_NE(zorvctl({"block", "policy"}).out.find("1 min 30 s"), std::string::npos);
}

constexpr const char* kOptions = "/etc/config/vpn_options.conf";

TEST(OptionCommand, AnswersProgramsInOneLine) {
  struct Answer {
    std::vector<std::string> words;
    const char* line;
    int status;
  };
  harness::write_file(
      kOptions, R"({"global": {"version": "1"}, "gw_setting": {"as_gw_en": 0}, "{}": {"a": 1}})");
  const Answer answers[] = {
      {{"get"},
       R"({"data": {"global": {"version": "1"}, "gw_setting": {"as_gw_en": 0}, "{}": {"a": 1}}, "error": 0})",
       0},
      {{"get", "global"}, R"({"data": {"version": "1"}, "error": 0})", 0},
      {{"get", "nothing"}, R"({"data": {}, "error": 0})", 0},
      {{"get", "{}"}, R"({"data": {"a": 1}, "error": 0})", 0},
      {{"get", "a", "b"}, R"({"error": -1})", 2},
      {{"set"}, R"({"error": -1})", 2},
      {{"frob"}, R"({"error": -1})", 2},
      {{}, R"({"error": -1})", 2},
  };
  for (const Answer& answer : answers) {
    std::vector<std::string> words{"option"};
    words.insert(words.end(), answer.words.begin(), answer.words.end());
    const Outcome outcome = zorvctl(words);
    EXPECT_EQ(outcome.out, std::string(answer.line) + "\n");
    EXPECT_EQ(outcome.status, answer.status) << outcome.err;
  }
}

TEST(OptionCommand, IsSetOnlyByAnObjectAndSaysWhatWasNotStored) {
  const std::string before = R"({"global": {"version": "1"}, "gw_setting": {"as_gw_en": 0}})";
  const std::pair<const char*, int> refused[] = {{"", 2},  {"[]", 2},   {"{", 2},
                                                 {"3", 2}, {"{} x", 2}, {"@/no/such/file", 1}};
  harness::write_file(kOptions, before);
  for (const auto& [patch, status] : refused) {
    const Outcome outcome = zorvctl({"option", "set", patch});
    EXPECT_EQ(outcome.status, status) << patch;
    EXPECT_NE(outcome.err, "");
    EXPECT_EQ(harness::read_file(kOptions), before) << patch;
  }
  EXPECT_EQ(zorvctl({"option", "set", "-"}, R"({"global": {"version": "2"}})").status, 0);
  EXPECT_EQ(zorvctl({"option", "get", "global"}).out,
            "{\"data\": {\"version\": \"2\"}, \"error\": 0}\n");
  harness::write_file("/patch.json", R"({"global": {"version": "3"}, "new": {}})");
  const Outcome partly = zorvctl({"option", "set", "@" + harness::test_root() + "/patch.json"});
  EXPECT_EQ(partly.status, 1);
  EXPECT_NE(partly.err.find("'new'"), std::string::npos) << partly.err;
  EXPECT_EQ(zorvctl({"option", "get", "global"}).out,
            "{\"data\": {\"version\": \"3\"}, \"error\": 0}\n");
}

TEST(GatewayCommand, IsShownAndDisabled) {
  harness::write_file(kOptions,
                      R"({"gw_setting": {"as_gw_en": 1, "gw1": {"type": 1024, "index": 3, )"
                      R"("sname": "OPENVPN_CLIENT3"}, "failover_en": 0}})");
  const Outcome shown = zorvctl({"gateway", "show"});
  EXPECT_EQ(shown.status, 1) << "the network service is away";
  EXPECT_NE(shown.out.find("OpenVPN client 3 (OPENVPN_CLIENT3)"), std::string::npos) << shown.out;

  const PlatformDaemon platform;
  const Outcome json = zorvctl({"gateway", "show", "-j"});
  EXPECT_EQ(json.status, 0) << json.err;
  json_t* both = json_loads(json.out.c_str(), 0, nullptr);
  EXPECT_TRUE(json_is_object(json_object_get(both, "current"))) << json.out;
  EXPECT_TRUE(json_is_object(json_object_get(both, "gw_setting"))) << json.out;
  json_decref(both);

  EXPECT_NE(zorvctl({"gateway", "disable", "pptp", "1"}).out.find("nothing changed"),
            std::string::npos);
  EXPECT_EQ(zorvctl({"gateway", "disable", "OpenVPN", "3"}).status, 0);
  EXPECT_NE(harness::read_file(kOptions).find("\"as_gw_en\": 0"), std::string::npos);
}

}  // namespace
