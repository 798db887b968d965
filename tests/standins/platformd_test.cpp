#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "conf_file_lock.h"
#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/test_root.h"
#include "json_ref.h"
#include "kxbus.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kState = "/etc/config/network_state.json";

struct Answer {
  int status = -1;        // of the bus
  json_int_t error = -1;  // -1: none
  std::string data{};     // as compact JSON; of a failure its message
};

Answer call(const char* service, const char* method, const std::string& request) {
  std::string reply;
  Answer answer{harness::bus_call(method, request, &reply, 5, -1, service)};
  const JsonRef json(json_loadb(reply.data(), reply.size(), 0, nullptr));
  if (const json_t* error = json_object_get(json.get(), "error")) {
    answer.error = json_integer_value(error);
    answer.data =
        text_or_empty(dump_json(json_object_get(json.get(), answer.error == 0 ? "data" : "message"),
                                JSON_COMPACT | JSON_ENCODE_ANY | JSON_SORT_KEYS));
  }
  return answer;
}

Answer read_json(const std::string& path) {
  return call("vpncaas", "read_json", R"({"path": ")" + path + "\"}");
}

Answer network(const char* method, const std::string& request = "") {
  return call("NetworkService", method, request);
}

std::string in_root(const std::string& path) {
  return harness::test_root() + path;
}

TEST(Platformd, ReadsDocumentsBelowTheFolderAndNothingElse) {
  harness::PlatformDaemon daemon;
  const std::string name = "/etc/config/";
  const std::string megabyte = "[\"" + std::string(1024UL * 1024 - 4, 'x') + "\"]";
  fs::create_directories(in_root("/etc/config/sub"));
  fs::create_directory(in_root("/etc/config2"));
  ASSERT_EQ(mkfifo(in_root("/etc/config/fifo").c_str(), 0600), 0);
  for (const char* path : {"/etc/config2/a", "/etc/secret", "/etc/config/inside"}) {
    harness::write_file(path, "{}");
  }
  fs::create_symlink("../secret", in_root("/etc/config/link"));
  fs::create_symlink("inside", in_root("/etc/config/inner_link"));
  fs::create_directory_symlink("..", in_root("/etc/config/sub/out"));
  const struct {
    std::string path;
    int error = 0;
    std::string content{};  // written where it is not empty
  } cases[] = {
      {name + "with space \xC3\xA9%2F.conf", 0, R"({"global":{"k":"M\u00fcller"}})"},
      {name + "sub/long", 0, megabyte},
      {name + "huge", EFBIG, megabyte + "\n"},
      {name + "missing", ENOENT},
      {name + "broken", EBADMSG, "{\"a\": 1"},
      {name + "sub", EISDIR},
      {name + "fifo", ENXIO},
      {name + "inside/a", ENOTDIR},
      {name + std::string(300, 'x'), ENAMETOOLONG},
      {"", EPERM},
      {"/etc/config2/a", EPERM},
      {"/etc/config/", EPERM},
      {"etc/config/inside", EPERM},
      {"/etc/config/../secret", EPERM},
      {"/etc/config/sub/../inside", EPERM},
      {"/etc/config/./inside", EPERM},
      {"/etc/config//inside", EPERM},
      {"/etc/config/link", ELOOP},
      {"/etc/config/inner_link", ELOOP},
      {"/etc/config/sub/out/inside", ELOOP},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    if (!c.content.empty()) {
      harness::write_file(c.path, c.content);
    }
    const Answer answer = read_json(c.path);
    EXPECT_EQ(answer.error, c.error) << answer.data;
    EXPECT_EQ(answer.data.find(harness::test_root()), std::string::npos);
    EXPECT_EQ(answer.data.size() > 5, c.error != 0 || c.content.size() > 5);
  }
  // What was not found or refused has no lock file.
  const fs::directory_iterator locks(in_root(nas::kConfLockFolder));
  EXPECT_EQ(std::distance(begin(locks), end(locks)), 4);
  {
    const nas::ConfFileLock lock(conf_file_write_lock("/etc/config/inside"));
    EXPECT_EQ(read_json("/etc/config/inside").error, ETIMEDOUT);
  }
  EXPECT_EQ(read_json("/etc/config/inside").data, "{}");
  EXPECT_EQ(daemon.stop(), 0);
}

TEST(Platformd, BadRequestsAreAnsweredAndASecondOneEnds) {
  harness::PlatformDaemon daemon;
  for (const char* request : {"", "{", "{}", R"({"path": 5})", "[]", "\xFF\xFF\xFF\xFF"}) {
    EXPECT_EQ(call("vpncaas", "read_json", request).error, EINVAL) << request;
  }
  EXPECT_EQ(network("external_dev.list", R"({"key": null})").error, EINVAL);
  EXPECT_EQ(call("vpncaas", "external_dev.list", "{}").status, KX_IS_INVALID);
  const harness::Outcome second = harness::run({harness::program("platformd")});
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.err.find("vpncaas"), std::string::npos) << second.err;
  EXPECT_EQ(network("api.get_currentGWinfo").data, "[]");
}

TEST(Platformd, TellsWhatTheStateFileHoldsAndCountsTheGatewayUpdates) {
  harness::PlatformDaemon daemon;
  EXPECT_EQ(network("external_dev.list").data, "{}");
  harness::write_file(kState, R"({"devices": {"tun2": {"profile": "Home"}, "wgc3": {"profile": 5}},
                                  "gateways": [{"ifname": "tun2"}, 7], "mine": "kept"})");
  chmod(in_root(kState).c_str(), 0640);
  EXPECT_EQ(network("external_dev.list", R"({"key": "tun2"})").data,
            R"({"tun2":{"profile":"Home"}})");
  EXPECT_EQ(network("external_dev.list", R"({"key": "none"})").data, "{}");
  EXPECT_EQ(network("external_dev.list", "{}").data,
            R"({"tun2":{"profile":"Home"},"wgc3":{"profile":5}})");
  for (int count = 1; count <= 3; ++count) {
    EXPECT_EQ(network("external_dev.update_vpn_gw").error, 0);
  }
  EXPECT_EQ(network("api.get_currentGWinfo").data, R"([{"ifname":"tun2"},7])");
  const std::string state = read_json(kState).data;
  EXPECT_NE(state.find(R"("mine":"kept","update_vpn_gw":{"count":3,"time":1)"), std::string::npos);
  struct stat status {};
  ASSERT_EQ(stat(in_root(kState).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640U);
  for (const char* broken : {"{\"gateways\": [", "[]", R"({"devices": [], "gateways": {}})"}) {
    harness::write_file(kState, broken);
    EXPECT_EQ(network("external_dev.list").error, EBADMSG) << broken;
    EXPECT_EQ(network("api.get_currentGWinfo").error, EBADMSG) << broken;
    EXPECT_EQ(network("external_dev.update_vpn_gw").error, broken[2] == 'd' ? 0 : EBADMSG)
        << broken;
    EXPECT_TRUE(broken[2] == 'd' || harness::read_file(kState) == broken) << "to be mended by hand";
  }
}

TEST(Platformd, OptionsAndSignals) {
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    harness::Process daemon({harness::program("platformd"), "--log-file", "/var/log/platformd.log",
                             "--state", "/var/run/state.json"});
    ASSERT_TRUE(
        harness::eventually([] { return network("external_dev.update_vpn_gw").error == 0; }));
    EXPECT_EQ(call("vpncaas", "read_json", "{}").error, EINVAL);
    daemon.send(number);
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_EQ(network("external_dev.list").status, KX_NOT_READY);
  }
  EXPECT_NE(harness::read_file("/var/run/state.json").find("\"count\": 3"), std::string::npos);
  EXPECT_NE(harness::read_file("/var/log/platformd.log").find("read_json: no text \"path\"\n"),
            std::string::npos);
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{"--help"}, 0},          {{"--version"}, 0},
      {{"--nonsense"}, 2},      {{"word"}, 2},
      {{"--state"}, 2},         {{"--state", "relative.json"}, 2},
      {{"--log-file", "a"}, 2}, {{"--log-file", "/no/such/folder/log"}, 1}};
  for (const auto& [options, status] : cases) {
    std::vector<std::string> words = {harness::program("platformd")};
    words.insert(words.end(), options.begin(), options.end());
    const harness::Outcome outcome = harness::run(words);
    EXPECT_EQ(outcome.status, status) << options[0];
    EXPECT_NE(outcome.out.empty(), outcome.err.empty()) << options[0];
  }
}

}  // namespace
