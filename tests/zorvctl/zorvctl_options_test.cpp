// zorvctl on the options file: the options' nouns, and what cannot be read or written.
#include <gtest/gtest.h>

#include <filesystem>

#include "harness/command.h"
#include "harness/test_root.h"

namespace {

using namespace std::string_literals;
using harness::done;
using harness::Outcome;
using harness::zorvctl;
using Words = std::vector<std::string>;

constexpr const char* kOptions = "/etc/config/vpn_options.conf";

TEST(OptionCommand, AnswersProgramsInOneLine) {
  const struct {
    Words words;
    const char* line;
    int status;
  } answers[] = {
      {{"get"}, R"({"data": {"{}": {"a": 1}, "list": [1, 2]}, "error": 0})", 0},
      {{"get", "list"}, R"({"data": [1, 2], "error": 0})", 0},
      {{"get", "nothing"}, R"({"data": {}, "error": 0})", 0},
      {{"get", "a", "b"}, R"({"error": -1})", 2},
      {{"get", "-x"}, R"({"error": -1})", 2},
      {{"set"}, R"({"error": -1})", 2},
      {{"list", "get"}, R"({"error": -1})", 2},
      {{}, R"({"error": -1})", 2},
  };
  harness::write_file(kOptions, R"({"{}": {"a": 1}, "list": [1, 2]})");
  for (const auto& answer : answers) {
    Words words{"option"};
    words.insert(words.end(), answer.words.begin(), answer.words.end());
    const Outcome outcome = zorvctl(words);
    EXPECT_EQ(outcome.out, std::string(answer.line) + "\n");
    EXPECT_EQ(outcome.status, answer.status) << outcome.err;
  }
  EXPECT_TRUE(harness::log_holds("cmd_global_opt:argc=3, argvs=option get nothing "));
}

TEST(OptionCommand, IsSetOnlyByAnObjectAndSaysWhatWasNotStored) {
  const std::string before = R"({"global": {"version": "1"}, "gw_setting": {"as_gw_en": 0}})";
  harness::write_file(kOptions, before);
  for (const auto& [patch, status] : std::initializer_list<std::pair<const char*, int>>{
           {"", 2}, {"3", 2}, {"{} x", 2}, {"@/no/such/file", 1}, {"@/tmp", 1}}) {
    const Outcome outcome = zorvctl({"option", "set", patch});
    EXPECT_EQ(outcome.status, status) << patch;
    EXPECT_NE(outcome.err, "");
  }
  EXPECT_EQ(zorvctl({"option", "set", "-"}, "{\"global\": {}}\0more"s).status, 2);
  EXPECT_EQ(harness::read_file(kOptions), before);
  EXPECT_EQ(zorvctl({"option", "set", "-"}, R"({"global": {"version": "2"}})").status, 0);
  EXPECT_EQ(done({"option", "get", "global"}), "{\"data\": {\"version\": \"2\"}, \"error\": 0}\n");
  harness::write_file("/patch.json", R"({"new": {}, "global": {"version": "3"}})");
  const Outcome partly = zorvctl({"option", "set", "@" + harness::test_root() + "/patch.json"});
  EXPECT_EQ(partly.status, 1);
  EXPECT_EQ(partly.err,
            "zorvctl: 'new' was not stored: there is no such section in the options file\n");
  EXPECT_EQ(done({"option", "get", "global"}), "{\"data\": {\"version\": \"3\"}, \"error\": 0}\n");
}

TEST(OptionCommand, TellsAFileThatIsUnreadFromOneThatIsEmpty) {
  constexpr const char* kSection = R"({"gw_setting": {"as_gw_en": 0}})";
  constexpr const char* kUnread = "could not be read";
  constexpr const char* kBroken = "holds no JSON object";
  const Words disable{"gateway", "disable", "openvpn", "1"};
  const struct {
    const char* content;  // null: no file; "": a link to itself, which nobody can open
    Words words;
    int status;
    const char* said;
  } cases[] = {
      {nullptr, {"option", "get"}, 0, ""},
      {nullptr, {"option", "set", kSection}, 1, "does not exist"},
      {nullptr, disable, 0, ""},
      {R"([1])", {"option", "set", kSection}, 1, kBroken},
      {R"([1])", {"option", "get"}, 1, kBroken},
      {R"({"a": 1)", {"gateway", "show"}, 1, kBroken},
      {R"({"a": 1)", disable, 1, kBroken},
      {"", {"option", "get", "a"}, 1, kUnread},
      {"", {"option", "set", kSection}, 1, kUnread},
      {"", {"gateway", "show"}, 1, kUnread},
      {"", disable, 1, kUnread},
  };
  const harness::PlatformDaemon platform;
  const std::string path = harness::test_root() + kOptions;
  for (const auto& one : cases) {
    std::filesystem::remove(path);
    const std::string content = one.content != nullptr ? one.content : "";
    if (!content.empty()) {
      harness::write_file(kOptions, content);
    } else if (one.content != nullptr) {
      std::filesystem::create_symlink(path, path);
    }
    const Outcome outcome = zorvctl(one.words);
    SCOPED_TRACE(content + testing::PrintToString(one.words));
    EXPECT_EQ(outcome.status, one.status) << outcome.err;
    EXPECT_NE(outcome.err.find(one.said), std::string::npos) << outcome.err;
    EXPECT_EQ(outcome.err.empty(), one.status == 0) << outcome.err;
    EXPECT_EQ(outcome.out.find("not a VPN client") != std::string::npos,
              one.words[1] == "show" && !content.empty());
    EXPECT_EQ(std::filesystem::exists(std::filesystem::symlink_status(path)),
              one.content != nullptr);
  }
}

TEST(GatewayCommand, IsShownAndDisabled) {
  const std::string settings = R"({"gw_setting": {"as_gw_en": 1, "gw1": {"type": 1024, "index": 3},
      "failover_en": 1, "gw2": {"type": 512, "index": 2}, "failover_interval": )";
  const std::string shown =
      "default gateway  OpenVPN client 3 (OPENVPN_CLIENT3)\n"
      "backup           L2TP/IPSec client 2 (L2TP_CLIENT2)\n"
      "back after       ";
  for (const auto& [interval, text] : {std::pair("-1", "never"), {"0", "at once"}, {"5", "5"}}) {
    harness::write_file(kOptions, settings + interval + "}}");
    const Outcome outcome = zorvctl({"gateway", "show"});
    EXPECT_EQ(outcome.status, 1) << "the network service is away";
    EXPECT_EQ(outcome.out, "in use           unknown\n" + shown + text + "\n");
  }
  const harness::PlatformDaemon platform;
  EXPECT_EQ(done({"gateway", "show"}), "in use           none\n" + shown + "5\n");
  const char* const unchanged = "nothing changed: this client is not a gateway\n";
  EXPECT_EQ(done({"gateway", "disable", "pptp", "1"}), unchanged);
  EXPECT_EQ(done({"gateway", "disable", "512", "2"}),
            "default gateway  OpenVPN client 3 (OPENVPN_CLIENT3)\nbackup           none\n");
  EXPECT_EQ(done({"gateway", "disable", "NONE", "0"}), unchanged) << "found, and so already";
  EXPECT_EQ(done({"gateway", "disable", "OpenVPN", "3"}), "default gateway  not a VPN client\n");
  EXPECT_EQ(harness::read_file(kOptions), R"({"gw_setting": {"as_gw_en": 0, "failover_en": 0}})");
  EXPECT_EQ(done({"gateway", "show", "-j"}),
            "{\"current\": {\"type\": 0, \"index\": 0}, "
            "\"gw_setting\": {\"as_gw_en\": 0, \"failover_en\": 0}}\n");
  for (const Words& wrong : {Words{"ssh", "1"}, Words{"l2tp/ipsec", "1"}, Words{"pptp", "1x"}}) {
    EXPECT_EQ(zorvctl({"gateway", "disable", wrong[0], wrong[1]}).status, 2) << wrong[0];
  }
}

TEST(OptionsFile, ThatCannotBeWrittenIsNotTakenForSaved) {
  const std::string path = harness::test_root() + kOptions;
  const std::string before =
      R"({"gw_setting": {"as_gw_en": 1, "gw1": {"type": 1024, "index": 2}}})";
  const bool may_mount = harness::run({"/usr/bin/unshare", "--mount", "true"}).status == 0;
  const struct {
    bool possible;
    std::string script;  // what is written leaves zorvctl through a pipe, to which no limit applies
    const char* said;
    std::string left;
  } cases[] = {
      {may_mount,
       "unshare --mount sh -c 'mount --bind $F $F && mount -o remount,bind,ro $F && "
       "$Z gateway disable openvpn 2'",
       "cannot be written: Read-only file system", before},
      {true, "trap '' XFSZ && ulimit -f 0 && $Z option set @$F", "failed and damaged it", ""},
  };
  const harness::PlatformDaemon platform;
  for (const auto& one : cases) {
    if (!one.possible) {
      continue;
    }
    harness::write_file(kOptions, before);
    const Outcome outcome =
        harness::run({"/bin/sh", "-c",
                      "export F=" + path + " Z=" + harness::program("zorvctl") + "; said=$(" +
                          one.script + " 2>&1); status=$?; echo \"$said\"; exit $status"});
    EXPECT_EQ(outcome.status, 1) << one.script;
    EXPECT_NE(outcome.out.find(one.said), std::string::npos) << outcome.out;
    EXPECT_EQ(harness::lines_of(outcome.out).size(), 1U) << outcome.out;
    EXPECT_EQ(harness::read_file(kOptions), one.left);
  }
}

}  // namespace
