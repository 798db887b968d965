#include <fcntl.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>

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
  int status = -1;  // of the bus
  JsonRef json;

  json_int_t error() const {
    const json_t* value = json_object_get(json.get(), "error");
    return json_is_integer(value) ? json_integer_value(value) : -1;
  }
  std::string message() const {
    const char* text = json_string_value(json_object_get(json.get(), "message"));
    return text != nullptr ? text : "";
  }
  // "data" as compact JSON.
  std::string data() const {
    const JsonText text(json_dumps(json_object_get(json.get(), "data"),
                                   JSON_COMPACT | JSON_ENCODE_ANY | JSON_SORT_KEYS));
    return text != nullptr ? text.get() : "";
  }
};

Answer call(const char* service, const char* method, const std::string& request) {
  std::string reply;
  Answer answer{harness::bus_call(method, request, &reply, 5, -1, service), nullptr};
  answer.json.reset(json_loadb(reply.data(), reply.size(), 0, nullptr));
  return answer;
}

Answer read_json(const std::string& path) {
  const JsonRef request(json_pack("{s:s%}", "path", path.data(), path.size()));
  const JsonText text(json_dumps(request.get(), 0));
  return call("vpncaas", "read_json", text.get());
}

std::string in_root(const std::string& path) {
  return harness::test_root() + path;
}

class Platformd : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(in_root("/etc/config"));
    fs::remove_all(in_root(nas::kConfLockFolder));
    fs::create_directories(in_root("/etc/config/sub/deep"));
    daemon_ = std::make_unique<harness::PlatformDaemon>();
  }
  void TearDown() override {
    if (daemon_ != nullptr) {
      EXPECT_EQ(daemon_->stop(), 0);
    }
  }

  std::unique_ptr<harness::PlatformDaemon> daemon_;
};

TEST_F(Platformd, ReadsDocumentsBelowTheFolderAndNothingElse) {
  const std::string name = "/etc/config/";
  const std::string megabyte = "[\"" + std::string(1000000, 'x') + "\"]";
  fs::create_directory(in_root("/etc/config/folder"));
  ASSERT_EQ(mkfifo(in_root("/etc/config/fifo").c_str(), 0600), 0);
  fs::create_directory(in_root("/etc/config2"));
  harness::write_file("/etc/config2/a", "{}");
  harness::write_file("/etc/secret", "{}");
  harness::write_file("/etc/config/inside", "{}");
  fs::create_symlink(in_root("/etc/secret"), in_root("/etc/config/link"));
  fs::create_symlink("../secret", in_root("/etc/config/up_link"));
  fs::create_symlink("inside", in_root("/etc/config/inner_link"));
  fs::create_directory_symlink("..", in_root("/etc/config/sub/out"));
  fs::create_directory_symlink("/proc/self/root", in_root("/etc/config/magic"));
  const struct {
    std::string path;
    int error = 0;
    std::string content{};  // written where it is not empty
    std::string data{};
  } cases[] = {
      {name + "a.conf", 0, R"({"global": {"time": 0.05}})",
       R"({"global":{"time":0.050000000000000003}})"},
      {name + "with space \xC3\xA9%2F.conf", 0, "{}", "{}"},
      {name + "..conf", 0, "{\"k\": \"M\xC3\xBCller\"}", "{\"k\":\"M\xC3\xBCller\"}"},
      {name + "sub/deep/long", 0, megabyte, megabyte},
      {name + "missing", ENOENT},
      {name + "broken", EBADMSG, "{\"a\": 1"},
      {name + "scalar", EBADMSG, "true"},
      {name + "bytes", EBADMSG, "[\"\xFF\"]"},
      {name + "brackets", EBADMSG, std::string(100000, '[')},
      {name + "huge", EFBIG, "[\"" + std::string(1024UL * 1024, 'x') + "\"]"},
      {name + "folder", EISDIR},
      {name + "fifo", ENXIO},
      {name + "inside/a", ENOTDIR},
      {name + std::string(5000, 'x'), ENAMETOOLONG},
      {"", EPERM},
      {std::string("/etc/config/a\0b", 15), EINVAL},
      {"/etc/secret", EPERM},
      {"/etc/config2/a", EPERM},
      {"/etc/config/", EPERM},
      {"etc/config/inside", EPERM},
      {"/proc/self/environ", EPERM},
      {"/etc/config/../secret", EPERM},
      {"/etc/config/sub/../inside", EPERM},
      {"/etc/config/..", EPERM},
      {"/etc/config/./inside", EPERM},
      {"/etc/config//inside", EPERM},
      {"/etc/config/sub/", EPERM},
      {"/etc/config/link", ELOOP},
      {"/etc/config/up_link", ELOOP},
      {"/etc/config/inner_link", ELOOP},
      {"/etc/config/sub/out/inside", ELOOP},
      {"/etc/config/magic/etc/passwd", ELOOP},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path.substr(0, 80));
    if (!c.content.empty()) {
      harness::write_file(c.path, c.content);
    }
    const Answer answer = read_json(c.path);
    EXPECT_EQ(answer.status, KX_SUCCESS);
    EXPECT_EQ(answer.error(), c.error) << answer.message();
    EXPECT_EQ(answer.message().empty(), c.error == 0);
    EXPECT_EQ(answer.message().find(harness::test_root()), std::string::npos);
    EXPECT_EQ(answer.data(), c.data);
  }
  // An endless file, which cannot be read to its end either.
  harness::write_file("/etc/config/sparse", "[");
  ASSERT_EQ(truncate(in_root("/etc/config/sparse").c_str(), off_t{1} << 30), 0);
  EXPECT_EQ(read_json("/etc/config/sparse").error(), EFBIG);
}

TEST_F(Platformd, WhatIsRefusedLeavesNoLockFile) {
  harness::write_file("/etc/config/inside", "{}");
  for (const char* path : {"/etc/secret", "/etc/config/../inside", "/etc/config/inside"}) {
    read_json(path);
  }
  const std::string locks = in_root(nas::kConfLockFolder);
  EXPECT_EQ(std::distance(fs::directory_iterator(locks), fs::directory_iterator()), 1);
}

TEST_F(Platformd, WaitsForTheWriterButNotForEver) {
  harness::write_file("/etc/config/a.conf", "{}");
  {
    const nas::ConfFileLock lock(conf_file_write_lock("/etc/config/a.conf"));
    ASSERT_TRUE(lock.held());
    EXPECT_EQ(read_json("/etc/config/a.conf").error(), ETIMEDOUT);
  }
  EXPECT_EQ(read_json("/etc/config/a.conf").error(), 0);
}

TEST_F(Platformd, BadRequestsAreAnswered) {
  constexpr struct {
    const char* service;
    const char* method;
    const char* request;
    int status;
    json_int_t error;
  } kCases[] = {
      {"vpncaas", "read_json", "", KX_SUCCESS, EINVAL},
      {"vpncaas", "read_json", "{", KX_SUCCESS, EINVAL},
      {"vpncaas", "read_json", "{}", KX_SUCCESS, EINVAL},
      {"vpncaas", "read_json", R"({"path": 5})", KX_SUCCESS, EINVAL},
      {"vpncaas", "read_json", "\xFF\xFF\xFF\xFF", KX_SUCCESS, EINVAL},
      {"NetworkService", "external_dev.list", R"({"key": null})", KX_SUCCESS, EINVAL},
      {"NetworkService", "external_dev.list", "tun0", KX_SUCCESS, EINVAL},
      {"vpncaas", "external_dev.list", "{}", KX_IS_INVALID, -1},
      {"NetworkService", "read_json", "{}", KX_IS_INVALID, -1},
  };
  for (const auto& c : kCases) {
    const Answer answer = call(c.service, c.method, c.request);
    EXPECT_EQ(answer.status, c.status) << c.service << "." << c.method << c.request;
    EXPECT_EQ(answer.error(), c.error) << c.service << "." << c.method << c.request;
  }
}

TEST_F(Platformd, TellsWhatTheStateFileHolds) {
  constexpr const char* kFull =
      R"({"devices": {"tun2000": {"profile": "Home"}, "wgc3002": {"profile": 5}},
          "gateways": [{"interface_type": "VPN", "ifname": "tun2000"}, 7]})";
  const struct {
    const char* content;  // null: no file
    const char* method;
    const char* request;
    int error;
    const char* data;
  } cases[] = {
      {nullptr, "external_dev.list", "", 0, "{}"},
      {nullptr, "api.get_currentGWinfo", "", 0, "[]"},
      {kFull, "external_dev.list", R"({"key": "tun2000"})", 0, R"({"tun2000":{"profile":"Home"}})"},
      {kFull, "external_dev.list", R"({"key": "wgc3002"})", 0, R"({"wgc3002":{"profile":5}})"},
      {kFull, "external_dev.list", "{}", 0,
       R"({"tun2000":{"profile":"Home"},"wgc3002":{"profile":5}})"},
      {kFull, "api.get_currentGWinfo", "", 0, R"([{"ifname":"tun2000","interface_type":"VPN"},7])"},
      {"[]", "external_dev.list", "", EBADMSG, ""},
      {"{", "api.get_currentGWinfo", "", EBADMSG, ""},
      {R"({"devices": []})", "external_dev.list", "", EBADMSG, ""},
      {R"({"gateways": {}})", "api.get_currentGWinfo", "", EBADMSG, ""},
  };
  for (const auto& c : cases) {
    fs::remove(in_root(kState));
    if (c.content != nullptr) {
      harness::write_file(kState, c.content);
    }
    const Answer answer = call("NetworkService", c.method, c.request);
    EXPECT_EQ(answer.error(), c.error) << c.method << c.request << answer.message();
    EXPECT_EQ(answer.data(), c.data) << c.method << c.request;
  }
}

TEST_F(Platformd, CountsTheGatewayUpdates) {
  harness::write_file(kState, R"({"gateways": [1], "mine": "kept"})");
  for (json_int_t count = 1; count <= 3; ++count) {
    EXPECT_EQ(call("NetworkService", "external_dev.update_vpn_gw", "").error(), 0);
    const Answer state = read_json(kState);
    const json_t* data = json_object_get(state.json.get(), "data");
    const json_t* update = json_object_get(data, "update_vpn_gw");
    EXPECT_EQ(json_integer_value(json_object_get(update, "count")), count);
    EXPECT_GT(json_integer_value(json_object_get(update, "time")), 1700000000);
    EXPECT_STREQ(json_string_value(json_object_get(data, "mine")), "kept");
  }
  EXPECT_EQ(call("NetworkService", "api.get_currentGWinfo", "").data(), "[1]");
  // A broken file is the administrator's to mend, not to be written over.
  harness::write_file(kState, "{\"gateways\": [");
  EXPECT_EQ(call("NetworkService", "external_dev.update_vpn_gw", "").error(), EBADMSG);
  EXPECT_EQ(harness::read_file(kState), "{\"gateways\": [");
  fs::remove(in_root(kState));
  EXPECT_EQ(call("NetworkService", "external_dev.update_vpn_gw", "").error(), 0);
  EXPECT_EQ(read_json(kState).error(), 0);
}

TEST_F(Platformd, SecondOneLeavesTheFirstAlone) {
  const harness::Outcome second = harness::run({harness::program("platformd")});
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.err.find("vpncaas"), std::string::npos) << second.err;
  EXPECT_EQ(second.out, "");
  EXPECT_EQ(call("vpncaas", "read_json", "{}").error(), EINVAL);
  EXPECT_EQ(call("NetworkService", "external_dev.list", "").error(), 0);
}

TEST(PlatformdProgram, SaysWhenItIsReadyAndEndsWhole) {
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const int own_output = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    harness::Process daemon({harness::program("platformd"), "--log-file", "/var/log/platformd.log",
                             "--state", "/var/run/state.json"});
    dup2(own_output, STDOUT_FILENO);
    close(own_output);
    close(ends[1]);
    char line[64] = {};
    EXPECT_GT(read(ends[0], line, sizeof line - 1), 0);
    EXPECT_STREQ(line, "platformd: ready\n");
    close(ends[0]);
    EXPECT_EQ(call("vpncaas", "read_json", "{}").error(), EINVAL);
    EXPECT_EQ(call("NetworkService", "external_dev.update_vpn_gw", "").error(), 0);
    daemon.send(number);
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_EQ(call("vpncaas", "read_json", "{}").status, KX_NOT_READY);
    EXPECT_EQ(call("NetworkService", "external_dev.list", "").status, KX_NOT_READY);
  }
  EXPECT_NE(harness::read_file("/var/run/state.json").find("\"count\": 3"), std::string::npos);
  EXPECT_NE(harness::read_file("/var/log/platformd.log").find("read_json: no text \"path\"\n"),
            std::string::npos);
}

TEST(PlatformdProgram, Options) {
  const struct {
    std::vector<std::string> options;
    int status;
  } cases[] = {{{"--help"}, 0},          {{"--version"}, 0},
               {{"--nonsense"}, 2},      {{"word"}, 2},
               {{"--state"}, 2},         {{"--state", "relative.json"}, 2},
               {{"--log-file", "a"}, 2}, {{"--log-file", "/no/such/folder/log"}, 1}};
  for (const auto& c : cases) {
    std::vector<std::string> words = {harness::program("platformd")};
    words.insert(words.end(), c.options.begin(), c.options.end());
    const harness::Outcome outcome = harness::run(words);
    EXPECT_EQ(outcome.status, c.status) << c.options[0];
    EXPECT_NE(outcome.out.empty(), outcome.err.empty()) << c.options[0];
  }
}

}  // namespace
