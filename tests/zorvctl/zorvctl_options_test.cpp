// zorvctl on the options file: the options' nouns, and what cannot be read or written.
#include <gtest/gtest.h>
#include <jansson.h>

#include <filesystem>

#include "harness/command.h"
#include "harness/test_root.h"
#include "json_ref.h"

namespace {

using namespace std::string_literals;
using harness::done;
using harness::lines_of;
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
      {{"get", "{}"}, R"({"data": {"a": 1}, "error": 0})", 0},
      {{"get", "a", "b"}, R"({"error": -1})", 2},
      {{"set"}, R"({"error": -1})", 2},
      {{"frob"}, R"({"error": -1})", 2},
      {{"list", "get"}, R"({"error": -1})", 2},
      {{"get", "-x"}, R"({"error": -1})", 2},
      {{}, R"({"error": -1})", 2},
  };
  EXPECT_EQ(done({"option", "get"}), "{\"data\": {}, \"error\": 0}\n") << "there is no file";
  harness::write_file(kOptions, R"({"{}": {"a": 1}, "list": [1, 2]})");
  for (const auto& answer : answers) {
    Words words{"option"};
    words.insert(words.end(), answer.words.begin(), answer.words.end());
    const Outcome outcome = zorvctl(words);
    EXPECT_EQ(outcome.out, std::string(answer.line) + "\n");
    EXPECT_EQ(outcome.status, answer.status) << outcome.err;
  }
  EXPECT_TRUE(harness::log_holds("argc=3, argvs=option get nothing "));
}

TEST(OptionCommand, IsSetOnlyByAnObjectAndSaysWhatWasNotStored) {
  const std::string before = R"({"global": {"version": "1"}, "gw_setting": {"as_gw_en": 0}})";
  harness::write_file(kOptions, before);
  for (const auto& [patch, status] : std::initializer_list<std::pair<const char*, int>>{
           {"", 2}, {"3", 2}, {"{} x", 2}, {"@/no/such/file", 1}, {"@/tmp", 1}}) {
    const Outcome outcome = zorvctl({"option", "set", patch});
    EXPECT_EQ(outcome.status, status) << patch;
    EXPECT_NE(outcome.err, "");
    EXPECT_EQ(harness::read_file(kOptions), before) << patch;
  }
  EXPECT_EQ(zorvctl({"option", "set", "-"}, "{\"global\": {}}\0more"s).status, 2);
  EXPECT_EQ(harness::read_file(kOptions), before);
  EXPECT_EQ(zorvctl({"option", "set", "-"}, R"({"global": {"version": "2"}})").status, 0);
  EXPECT_EQ(done({"option", "get", "global"}), "{\"data\": {\"version\": \"2\"}, \"error\": 0}\n");
  harness::write_file("/patch.json", R"({"global": {"version": "3"}, "new": {}})");
  const Outcome partly = zorvctl({"option", "set", "@" + harness::test_root() + "/patch.json"});
  EXPECT_EQ(partly.status, 1);
  EXPECT_NE(partly.err.find("'new'"), std::string::npos) << partly.err;
  EXPECT_EQ(done({"option", "get", "global"}), "{\"data\": {\"version\": \"3\"}, \"error\": 0}\n");
}

TEST(OptionCommand, TellsAFileThatIsUnreadFromOneThatIsEmpty) {
  constexpr const char* kSection = R"({"gw_setting": {"as_gw_en": 0}})";
  constexpr const char* kUnread = "could not be read";
  const struct {
    const char* content;  // null: no file; "": a link to itself, which nobody can open
    Words words;
    int status;
    const char* said;
  } cases[] = {
      {nullptr, {"option", "set", kSection}, 1, "does not exist"},
      {nullptr, {"gateway", "disable", "openvpn", "1"}, 0, ""},
      {"{}", {"option", "get"}, 0, ""},
      {"{}", {"option", "set", kSection}, 1, "there is no such section"},
      {R"({"a": 1})", {"gateway", "disable", "openvpn", "1"}, 0, ""},
      {R"({"a": 1)", {"option", "set", kSection}, 1, "holds no JSON object"},
      {R"([1])", {"option", "set", kSection}, 1, "holds no JSON object"},
      {R"([1])", {"option", "get"}, 1, "holds no JSON object"},
      {R"({"a": 1)", {"gateway", "disable", "openvpn", "1"}, 1, "holds no JSON object"},
      {"", {"option", "get", "a"}, 1, kUnread},
      {"", {"option", "set", kSection}, 1, kUnread},
      {"", {"gateway", "show"}, 1, kUnread},
      {"", {"gateway", "disable", "openvpn", "1"}, 1, kUnread},
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
    EXPECT_EQ(outcome.out.find("not a VPN client"), std::string::npos) << outcome.out;
    if (content != "") {
      EXPECT_EQ(harness::read_file(kOptions), content);
    }
    EXPECT_EQ(std::filesystem::exists(std::filesystem::symlink_status(path)),
              one.content != nullptr);
  }
}

TEST(GatewayCommand, IsShownAndDisabled) {
  harness::write_file(kOptions,
                      R"({"gw_setting": {"as_gw_en": 1, "gw1": {"type": 1024, "index": 3, )"
                      R"("sname": "OPENVPN_CLIENT3"}, "failover_en": 0}})");
  const Outcome shown = zorvctl({"gateway", "show"});
  EXPECT_EQ(shown.status, 1) << "the network service is away";
  EXPECT_NE(shown.out.find("OpenVPN client 3 (OPENVPN_CLIENT3)"), std::string::npos) << shown.out;

  const harness::PlatformDaemon platform;
  const JsonRef both(json_loads(done({"gateway", "show", "-j"}).c_str(), 0, nullptr));
  EXPECT_TRUE(json_is_object(json_object_get(both.get(), "current")));
  EXPECT_TRUE(json_is_object(json_object_get(both.get(), "gw_setting")));
  const std::string other = zorvctl({"gateway", "disable", "pptp", "1"}).out;
  EXPECT_NE(other.find("nothing changed"), std::string::npos);
  EXPECT_EQ(zorvctl({"gateway", "disable", "OpenVPN", "3"}).status, 0);
  EXPECT_NE(harness::read_file(kOptions).find("\"as_gw_en\": 0"), std::string::npos);
}

TEST(GatewayCommand, TellsWhetherTheClientWasAGateway) {
  const struct {
    const char* settings;
    Words client;
    bool changes;
  } cases[] = {
      {R"("gw1": {"type": 1024, "index": 3}, "failover_en": 0, "gw2": {"type": 512, "index": 1})",
       {"l2tp", "1"},
       false},
      {R"("gw1": {"type": 1024, "index": 3}, "failover_en": 1, "gw2": {"type": 512, "index": 1})",
       {"l2tp", "1"},
       true},
      {R"("gw1": {"type": 512, "index": 1}, "failover_en": 1, "gw2": {"type": 512, "index": 1})",
       {"l2tp", "1"},
       true},
      {R"("gw1": {"type": 512.9, "index": 1})", {"l2tp", "1"}, true},
      {R"("gw1": {"type": 512, "index": 1}, "gw2": {})", {"none", "0"}, true},
      {R"("gw1": {"type": 512, "index": 1}, "failover_en": 0)", {"none", "0"}, false},
  };
  const harness::PlatformDaemon platform;
  for (const auto& one : cases) {
    const std::string before =
        R"({"gw_setting": {"as_gw_en": 1, )" + std::string(one.settings) + "}}";
    harness::write_file(kOptions, before);
    const std::string said = done({"gateway", "disable", one.client[0], one.client[1]});
    EXPECT_EQ(said.find("nothing changed") == std::string::npos, one.changes) << before << said;
    EXPECT_EQ(harness::read_file(kOptions) != before, one.changes) << before;
  }
}

TEST(OptionsFile, ThatCannotBeWrittenIsNotTakenForSaved) {
  const std::string path = harness::test_root() + kOptions;
  const std::string before =
      R"({"gw_setting": {"as_gw_en": 1, "gw1": {"type": 1024, "index": 2}}})";
  const struct {
    std::string preparation;
    const char* said;
    const char* left;
  } cases[] = {
      {"mount --bind $F $F && mount -o remount,bind,ro $F", "Read-only file system",
       before.c_str()},
      {"trap '' XFSZ && ulimit -f 0", "failed and damaged it", ""},
  };
  const bool may_mount = harness::run({"/usr/bin/unshare", "--mount", "true"}).status == 0;
  const harness::PlatformDaemon platform;
  for (const std::string words :
       {"gateway disable openvpn 2", R"(option set '{"gw_setting": {}}')", "option set @$F"}) {
    for (const auto& [preparation, said, left] : cases) {
      if (preparation.starts_with("mount") && !may_mount) {
        continue;
      }
      harness::write_file(kOptions, before);
      // The limit holds for zorvctl alone, whose words therefore leave it through a pipe.
      const std::string text = "F=" + path + "; said=$(" + preparation + " && " +
                               harness::program("zorvctl") + " " + words +
                               " 2>&1); status=$?; echo \"$said\"; exit $status";
      Words command{"/bin/sh", "-c", text};
      if (may_mount) {
        command.insert(command.begin(), {"/usr/bin/unshare", "--mount"});
      }
      const Outcome outcome = harness::run(command);
      EXPECT_EQ(outcome.status, 1) << words;
      EXPECT_NE(outcome.out.find(said), std::string::npos) << words << outcome.out;
      EXPECT_EQ(lines_of(outcome.out).size(), 1U) << words << outcome.out;
      EXPECT_EQ(harness::read_file(kOptions), left) << words;
    }
  }
}

}  // namespace
