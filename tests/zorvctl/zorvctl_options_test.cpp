// zorvctl on the options file: the options' nouns, and what cannot be read or written.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

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

TEST(OptionCommand, AnswersProgramsAndIsSetOnlyByAnObject) {
  constexpr const char* kWrong = "{\"error\": -1}\n";
  const struct {
    Words words;
    std::string input;
    int status;
    const char* out;
    const char* said;
  } cases[] = {
      {{"get", "list"}, "", 0, "{\"data\": [1, 2], \"error\": 0}\n", ""},
      {{"get", "none"}, "", 0, "{\"data\": {}, \"error\": 0}\n", ""},
      {{"get", "a", "b"}, "", 2, kWrong, "say \"get\""},
      {{"get", "-x"}, "", 2, kWrong, "say \"get\""},
      {{"set"}, "", 2, kWrong, "say \"get\""},
      {{"list", "get"}, "", 2, kWrong, "say \"get\""},
      {{}, "", 2, kWrong, "say \"get\""},
      {{"set", ""}, "", 2, "", "not JSON"},
      {{"set", "[3]"}, "", 2, "", "not an object"},
      {{"set", "@/no/such/file"}, "", 1, "", "cannot read /no/such/file: No such file"},
      {{"set", "@/tmp"}, "", 1, "", "cannot read /tmp: Is a directory"},
      {{"set", "-"}, "{\"list\": {}}\0more"s, 2, "", "not JSON"},
      {{"get"}, "", 0, "{\"data\": {\"list\": [1, 2]}, \"error\": 0}\n", ""},
      {{"set", "-"}, R"({"list": 2})", 0, "", ""},
      {{"get"}, "", 0, "{\"data\": {\"list\": 2}, \"error\": 0}\n", ""},
      {{"set", "@" + harness::test_root() + "/patch.json"},
       "",
       1,
       "",
       "'new' was not stored: there"},
      {{"get"}, "", 0, "{\"data\": {\"list\": 3}, \"error\": 0}\n", ""},
  };
  harness::write_file(kOptions, R"({"list": [1, 2]})");
  harness::write_file("/patch.json", R"({"new": {}, "list": 3})");
  for (const auto& one : cases) {
    Words words{"option"};
    words.insert(words.end(), one.words.begin(), one.words.end());
    const Outcome outcome = zorvctl(words, one.input);
    EXPECT_EQ(outcome.out, one.out) << testing::PrintToString(words);
    EXPECT_EQ(outcome.status, one.status) << outcome.err;
    EXPECT_NE(outcome.err.find(one.said), std::string::npos) << outcome.err;
    EXPECT_EQ(outcome.err.empty(), one.status == 0) << outcome.err;
  }
  EXPECT_TRUE(harness::log_holds("cmd_global_opt:argc=3, argvs=option get none "));
}

TEST(OptionCommand, TellsAFileThatIsUnreadFromOneThatIsEmpty) {
  const Words get{"option", "get"};
  const Words set{"option", "set", R"({"gw_setting": {"as_gw_en": 0}})"};
  const Words show{"gateway", "show"};
  const Words disable{"gateway", "disable", "openvpn", "1"};
  const std::string path = harness::test_root() + kOptions;
  const struct {
    std::string content;  // "none": no file; "/...": what the file is a link to
    Words words;
    int status;
    const char* said;
  } cases[] = {
      {"none", get, 0, ""},
      {"none", set, 1, "does not exist"},
      {"none", disable, 0, ""},
      {"[1]", set, 1, "holds no JSON object"},
      {"[1]", get, 1, "holds no JSON object"},
      {R"({"a": 1)", show, 1, "holds no JSON object"},
      {R"({"a": 1)", disable, 1, "holds no JSON object"},
      {path, get, 1, "could not be read: Too many levels"},
      {path, set, 1, "could not be read: Too many levels"},
      {path, disable, 1, "could not be read: Too many levels"},
      {"/etc", show, 1, "could not be read: Is a directory"},
  };
  const harness::PlatformDaemon platform;
  for (const auto& one : cases) {
    std::filesystem::remove(path);
    if (one.content.starts_with('/')) {
      std::filesystem::create_symlink(one.content, path);
    } else if (one.content != "none") {
      harness::write_file(kOptions, one.content);
    }
    const Outcome outcome = zorvctl(one.words);
    SCOPED_TRACE(one.content + testing::PrintToString(one.words));
    EXPECT_EQ(outcome.status, one.status) << outcome.err;
    EXPECT_NE(outcome.err.find(one.said), std::string::npos) << outcome.err;
    EXPECT_EQ(outcome.err.empty(), one.status == 0) << outcome.err;
    EXPECT_EQ(outcome.out.ends_with("not a VPN client\n"),
              one.content.starts_with('{') && one.words == show);
    EXPECT_EQ(std::filesystem::exists(std::filesystem::symlink_status(path)),
              one.content != "none");
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

// A file in memory that may not shrink cannot be opened for writing, and one that may not grow
// takes nothing once it is empty.
TEST(OptionsFile, ThatCannotBeWrittenIsNotTakenForSaved) {
  const std::string content = R"({"gw_setting": {"as_gw_en": 1, "gw1": {}}})";
  const harness::PlatformDaemon platform;
  for (const Words& words : {Words{"gateway", "disable", "none", "0"},
                             Words{"option", "set", R"({"gw_setting": {}})"}}) {
    for (const auto& [seal, said] : {std::pair(F_SEAL_SHRINK, "cannot be written: Operation not"),
                                     {F_SEAL_GROW, "failed and damaged it"}}) {
      const int file = memfd_create("options", MFD_ALLOW_SEALING | MFD_CLOEXEC);
      ASSERT_EQ(write(file, content.data(), content.size()), ssize_t(content.size()));
      ASSERT_EQ(fcntl(file, F_ADD_SEALS, seal), 0);
      const std::string path = harness::test_root() + kOptions;
      std::filesystem::remove(path);
      std::filesystem::create_symlink(
          "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file), path);
      const Outcome outcome = zorvctl(words);
      EXPECT_EQ(outcome.status, 1) << words[0];
      EXPECT_NE(outcome.err.find(said), std::string::npos) << outcome.err;
      EXPECT_EQ(outcome.out, "");
      EXPECT_EQ(harness::read_file(kOptions), seal == F_SEAL_SHRINK ? content : "");
      close(file);
    }
  }
}

}  // namespace
