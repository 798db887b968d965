#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "conf_file_lock.h"
#include "harness/bus_peer.h"
#include "harness/daemon.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kState = "/etc/config/state";

std::string call(const char* service, const char* method, const std::string& request = "") {
  std::string reply;
  const int status = harness::bus_call(method, request, &reply, 5, -1, service);
  return status == KX_SUCCESS ? reply : "status " + std::to_string(status);
}

std::string read_json(const std::string& path) {
  return call("vpncaas", "read_json", R"({"path": ")" + path + "\"}");
}

std::string network(const char* method, const std::string& request = "") {
  return call("NetworkService", method, request);
}

std::string failure(int error) {
  return "{\"error\":" + std::to_string(error) + ",\"message\":\"";
}

TEST(Platformd, ReadsDocumentsBelowTheFolderAndNothingElse) {
  harness::PlatformDaemon daemon;
  const std::string folder = harness::test_root() + "/etc/config";
  const std::string megabyte = "[\"" + std::string((1 << 20) - 4, 'x') + "\"]";
  fs::create_directories(folder + "/sub");
  ASSERT_EQ(mkfifo((folder + "/fifo").c_str(), 0600), 0);
  harness::write_file("/etc/secret", "{}");
  harness::write_file("/etc/config/a b.conf", "{\"k\":1}");
  harness::write_file("/etc/config/sub/long", megabyte);
  harness::write_file("/etc/config/huge", megabyte + "\n");
  fs::create_symlink("../secret", folder + "/link");
  const std::pair<std::string, std::string> kRows[] = {
      {"/etc/config/a b.conf", R"({"error":0,"data":{"k":1}})"},
      {"/etc/config/sub/long", "{\"error\":0,\"data\":" + megabyte + "}"},
      {"/etc/config/huge", failure(EFBIG)},
      {"/etc/config/missing", failure(ENOENT)},
      {"/etc/config/fifo", failure(ENXIO)},
      {"/etc/config/../secret", failure(EPERM)},
      {"/etc/config/link", failure(ELOOP)}};
  for (const auto& [path, answer] : kRows) {
    EXPECT_TRUE(read_json(path).starts_with(answer)) << path << read_json(path).substr(0, 200);
  }
  // What was not found or refused has no lock file.
  const fs::directory_iterator locks(harness::test_root() + nas::kConfLockFolder);
  EXPECT_EQ(std::distance(begin(locks), end(locks)), 3);
  {
    const nas::ConfFileLock lock(conf_file_write_lock("/etc/config/a b.conf"));
    EXPECT_TRUE(read_json("/etc/config/a b.conf").starts_with(failure(ETIMEDOUT)));
  }
  EXPECT_EQ(read_json("/etc/config/a b.conf"), kRows[0].second);
  EXPECT_EQ(harness::run({harness::program("platformd")}).status, 1) << "a second one";
}

TEST(Platformd, TellsWhatTheStateFileHoldsAndCountsTheGatewayUpdates) {
  harness::Process daemon({harness::program("platformd"), "--state", "/etc/config/state"});
  ASSERT_TRUE(harness::wait_until_serving("NetworkService"));
  harness::write_file(kState, R"({"devices": {"tun2": {"profile": "Home"}, "wgc3": {}},
                                  "gateways": [{"ifname": "tun2"}, 7], "mine": "kept"})");
  fs::permissions(harness::test_root() + kState, fs::perms(0640));
  EXPECT_EQ(network("external_dev.list", R"({"key": "tun2"})"),
            R"({"error":0,"data":{"tun2":{"profile":"Home"}}})");
  EXPECT_EQ(network("external_dev.update_vpn_gw"), R"({"error":0})");
  EXPECT_EQ(network("external_dev.update_vpn_gw"), R"({"error":0})");
  EXPECT_EQ(network("api.get_currentGWinfo"), R"({"error":0,"data":[{"ifname":"tun2"},7]})");
  EXPECT_NE(read_json(kState).find(R"("mine":"kept","update_vpn_gw":{"count":2,)"),
            std::string::npos);
  EXPECT_EQ(fs::status(harness::test_root() + kState).permissions(), fs::perms(0640));
  for (const std::string broken : {"{\"gateways\": [", "[]"}) {
    harness::write_file(kState, broken);
    EXPECT_TRUE(network("external_dev.update_vpn_gw").starts_with(failure(EBADMSG))) << broken;
    EXPECT_EQ(harness::read_file(kState), broken) << "to be mended by hand";
  }
  daemon.send(SIGHUP);
  EXPECT_EQ(daemon.wait(), 0);
}

}  // namespace
