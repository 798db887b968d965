// Who may call and who may serve: credentials on both sides, and the allow list.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "harness/bus_peer.h"
#include "harness/process.h"
#include "harness/test_root.h"
#include "kx_log.h"

namespace {

using harness::bus_call;
using harness::Child;
using harness::RawSocket;

constexpr const char* kAllowFile = "/etc/config/kxbus/bus.allow";
constexpr uid_t kStranger = 12345;
constexpr gid_t kGroup = 23456;

// A process of somebody else's.
struct Stranger : Child {
  Stranger(gid_t primary, const std::vector<gid_t>& groups, const std::function<int()>& body)
      : Child([&] {
          return setgroups(groups.size(), groups.data()) == 0 &&
                         setresgid(primary, primary, primary) == 0 &&
                         setresuid(kStranger, kStranger, kStranger) == 0
                     ? body()
                     : 100;
        }) {}
};

constexpr auto call = [] { return bus_call("echo", ""); };

class PeerTest : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can be somebody else";
    }
    mkdir((harness::test_root() + "/etc/config/kxbus").c_str(), 0755);
    chmod(harness::test_root().c_str(), 0755);
    kx_set_log([](const char* text) { log_ += std::string(text) + "\n"; });
  }

  static void allow(const std::string& text, mode_t mode = 0644, uid_t owner = 0) {
    const std::string path = harness::test_root() + kAllowFile;
    harness::write_file(kAllowFile, text);
    EXPECT_TRUE(chown(path.c_str(), owner, 0) == 0 && chmod(path.c_str(), mode) == 0);
  }

  // Serves until the stranger has ended; its value.
  static int serve(gid_t primary, const std::vector<gid_t>& groups,
                   const std::function<int()>& body) {
    log_.clear();
    kx_signal(SIGCHLD, [](int) { kx_stop(server_); });
    server_ = kx_create(harness::kBusAddress, 4, 1, harness::bus_callback);
    Stranger stranger(primary, groups, body);
    EXPECT_EQ(kx_start(server_), KX_SUCCESS);
    kx_free(server_);
    return stranger.wait();
  }

  static inline kx_server* server_ = nullptr;
  static inline std::string log_;
};

TEST_F(PeerTest, AllowListDecidesWhoMayCall) {
  const struct {
    std::string file;
    int status;
    const char* log = "";  // a line holds it
    gid_t primary = 1;
    std::vector<gid_t> groups{};
    mode_t mode = 0644;
    uid_t owner = 0;
  } kRows[] = {
      {"", KX_IS_REJECT, "bus: denied uid 12345 pid "},
      {"user 12346\nserver 12345\n# user 12345\n", KX_IS_REJECT, "denied"},
      {"# list\n\n \tuser\t12345  # him\r\n", KX_SUCCESS},
      {"user root\ngroup 23456\n", KX_SUCCESS, "", kGroup},
#ifndef __arm__  // whose emulator does not tell
      {"group 23456\n", KX_SUCCESS, "", 1, {5, 6, kGroup}},
#endif
      {"group 23456\n", KX_IS_REJECT, "denied", 7, {5, 6}},
      {"user\nuser a b\nhello\nuser 12345\n", KX_SUCCESS, "beginning with \"hello\" is not"},
      {"user 12345x\nuser -1\nuser 4294967295\n", KX_IS_REJECT, "unknown user \"12345x\""},
      {"user 12345\n", KX_IS_REJECT, "refused: not owned by root", 1, {}, 0644, 12345},
      {"user 12345\n", KX_IS_REJECT, "refused: writable by others", 1, {}, 0646},
      {"user 12345\n" + std::string(65536 - 11, '#'), KX_SUCCESS},
      {"user 12345\n" + std::string(65537 - 11, '#'), KX_IS_REJECT, "refused: too large"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.file.substr(0, 60));
    allow(row.file, row.mode, row.owner);
    EXPECT_EQ(serve(row.primary, row.groups, call), row.status);
    EXPECT_TRUE(*row.log == '\0' ? log_.empty() : log_.find(row.log) != std::string::npos) << log_;
  }
}

TEST_F(PeerTest, ManyOfOneUserFillNeitherTheLogNorTheServer) {
  kxbus::LogBudget budget;
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(budget.spend(), i < 32);
  }
  allow("user 12345\n");
  const auto crowd = [] {
    std::vector<RawSocket> mute(66);
    for (RawSocket& client : mute) {
      client = RawSocket::connected();
    }
    call();
    int told = 0;
    for (char answer[16]; const RawSocket& client : mute) {
      told += recv(client.get(), answer, sizeof answer, MSG_DONTWAIT) == sizeof answer ? 1 : 0;
    }
    return told;
  };
  const int told = serve(1, {}, crowd);
  EXPECT_TRUE(told == 2 || told == 3) << told << " of those beyond 64, the last caller included";
}

// A squatter on the abstract name: it gets no request, unless the list names it as the server.
TEST_F(PeerTest, AListenerThatIsNeitherRootNorNamedIsNotTrusted) {
  const Stranger squatter(
      1, {}, [] { return kx_start(kx_create(harness::kBusAddress, 4, 1, harness::bus_callback)); });
  ASSERT_TRUE(harness::eventually([] { return RawSocket::connected().get() >= 0; }));
  allow("user 12345\ngroup 12345\nserver 12346\n");
  EXPECT_EQ(call(), KX_IS_REJECT);
  EXPECT_EQ(Stranger(1, {}, call).wait(), KX_SUCCESS) << "one's own kind";
  allow("server 12345\n");
  EXPECT_EQ(call(), KX_SUCCESS);
}

}  // namespace
