// notify and platformd, as the daemon and the tools rely on them.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "conf_file_lock.h"
#include "harness/bus_peer.h"
#include "harness/daemon.h"

namespace {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

Words command(const Words& behind) {
  Words words = harness::lines_of("\nsend\n-A\nA238\n-C\nC001\n-M\n0017\n-l\nwarn\n-t\n3");
  words[0] = harness::program("notify");
  words.insert(words.end(), behind.begin(), behind.end());
  return words;
}

TEST(Notify, AppendsALineWithPlaceholdersFilledOnceAndBytesThatAreNoTextMarked) {
  fs::remove_all(harness::test_root() + "/var/log");
  const std::string much(120'000, 'v');
  const struct {
    Words words;  // template, application's name and values
    std::string arguments, text;
  } kRows[] = {
      {{"{1} {0}{2} {3}", "app", "{2}{0}", "{1}"}, R"("app","{2}{0}","{1}")", "{2}{0} app{1} {3}"},
      {{"{01}{ {} {x} {-1} {1 {{1}} {001} {", "a", ""}, R"("a","")", "{ {} {x} {-1} {1 {} {001} {"},
      {{"%s{1}%n", "a", "q\"b\\n\nü\xE2\x82"}, R"("a","q\"b\\n\nü��")", R"(%sq\"b\\n\nü��%n)"},
      {{"{1}{1}{1}{1}{1}{1}{1}{1}{1}", "a", much},
       "\"a\",\"" + much + "\"",
       std::string(1 << 20, 'v')},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(harness::run(command(row.words)).status, 0);
    EXPECT_EQ(
        harness::notifications(1).back().substr(strlen("{'time':'2026-11-22T01:02:03+01:00',")),
        R"("category":"C001","message_id":"0017","level":"warn","arguments":[)" + row.arguments +
            R"(],"text":")" + row.text + R"("})");
  }
  EXPECT_EQ(harness::notifications(1).size(), std::size(kRows));
}

TEST(Notify, OtherCommandLinesAreRefused) {
  EXPECT_EQ(harness::run(command({"template"})).status, 2);
  for (const size_t place : {1, 2, 3, 4, 6, 8, 9, 10, 11}) {
    Words wrong = command({"t {0}", "app"});
    wrong[place] += "x";
    EXPECT_EQ(harness::run(wrong).status, 2) << wrong[place];
  }
  EXPECT_EQ(harness::read_file(harness::kNotifications), "");
  alarm(20);  // a FIFO that nobody reads is no file, and is not waited for
  ASSERT_EQ(mkfifo((harness::test_root() + harness::kNotifications).c_str(), 0600), 0);
  EXPECT_EQ(harness::run(command({"t", "app"})).status, 1);
}

std::string call(const char* method, const std::string& request = "",
                 const char* service = "NetworkService") {
  std::string reply;
  harness::bus_call(method, request, &reply, 5, -1, service);
  return reply;
}

std::string read_json(const std::string& path) {
  return call("read_json", R"({"path": ")" + path + "\"}", "vpncaas");
}

std::string failure(int error) {
  return "{\"error\":" + std::to_string(error) + ",\"message\":\"";
}

TEST(Platformd, ReadsDocumentsBelowTheFolderAndNothingElse) {
  const harness::PlatformDaemon daemon;
  const std::string megabyte = "[\"" + std::string((1 << 20) - 4, 'x') + "\"]";
  harness::write_file("/etc/secret", "{}");
  harness::write_file("/etc/config/a b.conf", "{\"k\":1}");
  harness::write_file("/etc/config/zorv/long", megabyte);
  harness::write_file("/etc/config/huge", megabyte + "\n");
  fs::create_symlink("../secret", harness::test_root() + "/etc/config/link");
  const std::pair<std::string, std::string> kRows[] = {
      {"/etc/config/a b.conf", R"({"error":0,"data":{"k":1}})"},
      {"/etc/config/zorv/long", "{\"error\":0,\"data\":" + megabyte + "}"},
      {"/etc/config/huge", failure(EFBIG)},
      {"/etc/config/missing", failure(ENOENT)},
      {"/etc/config/../secret", failure(EPERM)},
      {"/etc/config/link", failure(ELOOP)}};
  for (const auto& [path, answer] : kRows) {
    EXPECT_TRUE(read_json(path).starts_with(answer)) << path;
  }
  const nas::ConfFileLock lock(conf_file_write_lock("/etc/config/a b.conf"));
  EXPECT_TRUE(read_json("/etc/config/a b.conf").starts_with(failure(ETIMEDOUT)));
}

TEST(Platformd, TellsWhatTheStateFileHoldsAndCountsTheGatewayUpdates) {
  constexpr const char* kState = "/etc/config/state";
  harness::Process daemon({harness::program("platformd"), "--state", kState});
  ASSERT_TRUE(harness::wait_until_serving("NetworkService"));
  harness::write_file(kState, R"({"devices": {"tun2": {"profile": "Home"}, "wgc3": {}},
                                  "gateways": [{"ifname": "tun2"}, 7], "mine": "kept"})");
  fs::permissions(harness::test_root() + kState, fs::perms(0640));
  EXPECT_EQ(call("external_dev.list", R"({"key": "tun2"})"),
            R"({"error":0,"data":{"tun2":{"profile":"Home"}}})");
  EXPECT_EQ(call("external_dev.update_vpn_gw"), R"({"error":0})");
  EXPECT_EQ(call("external_dev.update_vpn_gw"), R"({"error":0})");
  EXPECT_EQ(call("api.get_currentGWinfo"), R"({"error":0,"data":[{"ifname":"tun2"},7]})");
  EXPECT_NE(read_json(kState).find(R"("mine":"kept","update_vpn_gw":{"count":2,)"),
            std::string::npos);
  EXPECT_EQ(fs::status(harness::test_root() + kState).permissions(), fs::perms(0640));
  harness::write_file(kState, "[]");
  EXPECT_TRUE(call("external_dev.update_vpn_gw").starts_with(failure(EBADMSG)));
  EXPECT_EQ(harness::read_file(kState), "[]") << "to be mended by hand";
  daemon.send(SIGHUP);
  EXPECT_EQ(daemon.wait(), 0);
}

}  // namespace
