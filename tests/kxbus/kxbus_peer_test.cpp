// Who may call and who may serve: credentials on both sides, and the allow list.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "harness/bus_peer.h"
#include "harness/test_root.h"
#include "kxbus.h"

namespace {

using harness::bus_call;
using harness::Child;
using harness::RawSocket;

constexpr const char* kAllowFile = "/etc/config/kxbus/bus.allow";
constexpr uid_t kStranger = 12345;
constexpr gid_t kGroup = 23456;

// Runs `body` as somebody else and gives its value.
int run_as(uid_t user, gid_t primary, const std::vector<gid_t>& groups,
           const std::function<int()>& body) {
  return Child([&] {
           return setgroups(groups.size(), groups.data()) == 0 &&
                          setresgid(primary, primary, primary) == 0 &&
                          setresuid(user, user, user) == 0
                      ? body()
                      : 100;
         })
      .wait();
}

int call() {
  return bus_call("echo", "");
}

class PeerTest : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can be somebody else";
    }
    mkdir((harness::test_root() + "/etc/config/kxbus").c_str(), 0755);
    chmod(harness::test_root().c_str(), 0755);
  }

  static void allow(const std::string& text, mode_t mode = 0644, uid_t owner = 0) {
    unlink(path().c_str());
    harness::write_file(kAllowFile, text);
    EXPECT_TRUE(chown(path().c_str(), owner, 0) == 0 && chmod(path().c_str(), mode) == 0);
  }
  static std::string path() { return harness::test_root() + kAllowFile; }

  // Lines go to "/log" of the root, from the process that serves.
  static void serve(uid_t user = 0) {
    kx_set_log([](const char* text) {
      FILE* file = fopen((harness::test_root() + "/log").c_str(), "ae");
      fprintf(file, "%s\n", text);
      fclose(file);
    });
    harness::write_file("/log", "");
    chmod((harness::test_root() + "/log").c_str(), 0666);
    server_ = std::make_unique<Child>([user] {
      kx_server* server = setresuid(user, user, user) == 0
                              ? kx_create(harness::kBusAddress, 4, 1, harness::bus_callback)
                              : nullptr;
      return kx_start(server);
    });
    ASSERT_TRUE(harness::eventually([] { return RawSocket::connected().get() >= 0; }));
  }
  void TearDown() override { server_.reset(); }

  static inline std::unique_ptr<Child> server_;
};

// Whether a peer's supplementary groups can be asked for: an emulator may know of one at most.
bool groups_can_be_told() {
  return run_as(0, 0, {5, 6, kGroup}, [] {
           gid_t told[64];
           socklen_t length = sizeof told;
           int ends[2];
           return socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) == 0 &&
                          getsockopt(ends[0], SOL_SOCKET, SO_PEERGROUPS, told, &length) == 0 &&
                          length == 3 * sizeof(gid_t)
                      ? 0
                      : 1;
         }) == 0;
}

TEST_F(PeerTest, AllowListDecidesWhoMayCall) {
  serve();
  const std::string nobody = getpwnam("nobody") != nullptr ? "nobody" : "65534";
  const struct {
    std::string file;
    int status;
    const char* log = "";  // a line holds it
    uid_t user = kStranger;
    gid_t primary = 1;
    std::vector<gid_t> groups{};
    mode_t mode = 0644;
    uid_t owner = 0;
  } kCases[] = {
      {"", KX_SUCCESS, "", 0, 0},
      {"", KX_IS_REJECT, "bus: denied uid 12345 pid "},
      {"user 12345\n", KX_SUCCESS},
      {"user 12346\n", KX_IS_REJECT},
      {"user " + nobody, KX_SUCCESS, "", 65534},
      {"# user 12345\n", KX_IS_REJECT},
      {"# list\n\n \tuser\t12345  # him\r\n", KX_SUCCESS},
      {"group 23456\n", KX_SUCCESS, "", kStranger, kGroup},
      {"group 23456\n", KX_SUCCESS, "", kStranger, 1, {5, 6, kGroup}},
      {"group 23456\n", KX_IS_REJECT, "", kStranger, 7, {5, 6}},
      {"user 23456\n", KX_IS_REJECT, "", kStranger, kGroup},
      {"server 12345\n", KX_IS_REJECT},
      {"user\nuser a b\nhello\nuser 12345\n", KX_SUCCESS, "beginning with \"hello\" is not"},
      {"user 12345x\nuser -1\nuser 4294967295\n", KX_IS_REJECT, "unknown user \"12345x\""},
      {"user 12345\n", KX_IS_REJECT, "refused: not owned by root", kStranger, 1, {}, 0644, 12345},
      {"user 12345\n", KX_IS_REJECT, "refused: writable by others", kStranger, 1, {}, 0664},
      {"user 12345\n", KX_IS_REJECT, "refused: writable by others", kStranger, 1, {}, 0646},
      {"user 12345\n" + std::string(65536 - 11, '#'), KX_SUCCESS},
      {"user 12345\n" + std::string(65537 - 11, '#'), KX_IS_REJECT, "refused: too large"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.file.substr(0, 60));
    allow(c.file, c.mode, c.owner);
    harness::write_file("/log", "");
    if (c.groups.empty() || groups_can_be_told()) {
      EXPECT_EQ(run_as(c.user, c.primary, c.groups, call), c.status);
      EXPECT_NE(harness::read_file("/log").find(c.log), std::string::npos)
          << harness::read_file("/log");
      if (c.status == KX_SUCCESS && *c.log == '\0') {
        EXPECT_EQ(harness::read_file("/log"), "");
      }
    }
  }
}

TEST_F(PeerTest, ManyOfOneUserFillNeitherTheLogNorTheServer) {
  serve();
  allow("");
  ASSERT_EQ(unlink(path().c_str()), 0);
  ASSERT_EQ(symlink("/dev/zero", path().c_str()), 0);
  for (int round = 0; round < 60; ++round) {
    ASSERT_EQ(run_as(kStranger, 1, {}, call), KX_IS_REJECT);
  }
  const std::string log = harness::read_file("/log");
  EXPECT_LE(std::count(log.begin(), log.end(), '\n'), 2 * 33);
  allow("user 12345\n");
  const auto crowd = [] {
    std::vector<RawSocket> mute;
    for (int i = 0; i < 66; ++i) {
      mute.push_back(RawSocket::connected());
    }
    call();
    int told = 0;
    for (const RawSocket& client : mute) {
      char answer[16];
      told += recv(client.get(), answer, sizeof answer, MSG_DONTWAIT) == sizeof answer ? 1 : 0;
    }
    return told;
  };
  const int told = run_as(kStranger, 1, {}, crowd);
  EXPECT_TRUE(told == 2 || told == 3) << told << " of those beyond 64, the last caller included";
  EXPECT_EQ(call(), KX_SUCCESS);
}

// A squatter on the abstract name: it gets no request, unless the list names it as the server.
TEST_F(PeerTest, AListenerThatIsNeitherRootNorNamedIsNotTrusted) {
  serve(kStranger);
  allow("");
  EXPECT_EQ(call(), KX_IS_REJECT);
  allow("user 12345\ngroup 12345\nserver 12346\n");
  EXPECT_EQ(call(), KX_IS_REJECT);
  allow("server 12345\n");
  EXPECT_EQ(call(), KX_SUCCESS);
  EXPECT_EQ(run_as(kStranger, 1, {}, call), KX_SUCCESS) << "one's own kind";
}

// In a user namespace without a map every user looks alike, the caller's own self included.
TEST(Peer, UsersThatCannotBeToldApartAreNotTrusted) {
  const int status = Child([] {
                       const RawSocket listener = RawSocket::listening();
                       return unshare(CLONE_NEWUSER) == 0 ? call() : 100;
                     }).wait();
  if (status == 100) {
    GTEST_SKIP() << "no user namespaces here, or a thread of the sanitizer's is in the way";
  }
  EXPECT_EQ(status, KX_IS_REJECT);
}

}  // namespace
