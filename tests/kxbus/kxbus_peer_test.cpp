// Who may call and who may serve: credentials on both sides, and the allow list.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "harness/bus_peer.h"
#include "harness/test_root.h"
#include "kxbus.h"

namespace {

using harness::bus_call;
using harness::Child;

constexpr const char* kAllowFile = "/etc/config/kxbus/zorvd.allow";
constexpr const char* kAddress = "@/var/run/zorvd.sock";
constexpr uid_t kStranger = 12345;
constexpr gid_t kGroup = 23456;

std::vector<std::string> lines;

class PeerTest : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can be somebody else";
    }
    lines.clear();
    kx_set_log([](const char* text) { lines.emplace_back(text); });
    mkdir((harness::test_root() + "/etc/config/kxbus").c_str(), 0755);
    chmod(harness::test_root().c_str(), 0755);
    unlink(path().c_str());
  }

  static std::string path() { return harness::test_root() + kAllowFile; }

  static void allow(const std::string& text) {
    harness::write_file(kAllowFile, text);
    chmod(path().c_str(), 0644);
  }

  // The status that a call of another user gets.
  static int call_as(uid_t user, std::vector<gid_t> groups = {}, gid_t primary = 1) {
    Child child([&] {
      if (setgroups(groups.size(), groups.data()) != 0 ||
          setresgid(primary, primary, primary) != 0 || setresuid(user, user, user) != 0) {
        return 100;
      }
      return bus_call("echo", "", nullptr, 20, -1, kAddress);
    });
    return child.wait();
  }
};

// A child for the server, so that no thread of this process is copied into the callers.
class ServerChild {
 public:
  explicit ServerChild(uid_t user = 0) : child_([this, user] { return serve(user); }) {
    char byte = 0;
    ready_ = read(pipe_[0], &byte, 1) == 1;
  }
  ~ServerChild() {
    close(pipe_[0]);
    close(pipe_[1]);
  }
  bool ready() const { return ready_; }
  // What the server has logged so far, whole lines.
  std::string log() const {
    std::string text(4096, '\0');
    fcntl(pipe_[0], F_SETFL, O_NONBLOCK);
    const ssize_t length = read(pipe_[0], text.data(), text.size());
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
  }

 private:
  int serve(uid_t user) {
    static int log_to = pipe_[1];
    log_to = pipe_[1];
    kx_set_log([](const char* text) { dprintf(log_to, "%s\n", text); });
    if (setresuid(user, user, user) != 0) {
      return 1;
    }
    kx_server* server = kx_create(kAddress, 4, 1, harness::bus_callback);
    return server != nullptr && write(pipe_[1], "r", 1) == 1 ? kx_start(server) : 1;
  }

  static std::array<int, 2> make_pipe() {
    std::array<int, 2> ends{-1, -1};
    return pipe2(ends.data(), O_CLOEXEC) == 0 ? ends : std::array<int, 2>{-1, -1};
  }

  std::array<int, 2> pipe_ = make_pipe();
  Child child_;
  bool ready_ = false;
};

// Whether a peer's supplementary groups can be asked for: an emulator may know of one at most.
bool groups_can_be_told() {
  Child child([] {
    const gid_t own[] = {5, 6, kGroup};
    gid_t told[64];
    socklen_t length = sizeof told;
    int ends[2];
    const bool asked = setgroups(std::size(own), own) == 0 &&
                       socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) == 0 &&
                       getsockopt(ends[0], SOL_SOCKET, SO_PEERGROUPS, told, &length) == 0;
    return asked && length == sizeof own ? 0 : 1;
  });
  return child.wait() == 0;
}

TEST_F(PeerTest, AllowListDecidesWhoMayCall) {
  const ServerChild server;
  ASSERT_TRUE(server.ready());
  const std::string nobody = getpwnam("nobody") != nullptr ? "nobody" : "65534";
  const struct {
    const char* what;
    std::string file;
    int status;
    uid_t user = kStranger;
    gid_t primary = 1;
    std::vector<gid_t> groups = {};
  } kCases[] = {
      {"root needs no list", "", KX_SUCCESS, 0, 0},
      {"a stranger", "", KX_IS_REJECT},
      {"by number", "user 12345\n", KX_SUCCESS},
      {"somebody else's number", "user 12346\n", KX_IS_REJECT},
      {"by name", "user " + nobody, KX_SUCCESS, 65534},
      {"in a comment", "# user 12345\n", KX_IS_REJECT},
      {"with comments and blanks", "# list\n\n \tuser\t12345  # him\r\n", KX_SUCCESS},
      {"primary group", "group 23456\n", KX_SUCCESS, kStranger, kGroup},
      {"supplementary group", "group 23456\n", KX_SUCCESS, kStranger, 1, {5, 6, kGroup}},
      {"other groups", "group 23456\n", KX_IS_REJECT, kStranger, 7, {5, 6}},
      {"a user line is no group line", "user 23456\n", KX_IS_REJECT, kStranger, kGroup},
      {"a server line lets nobody call", "server 12345\n", KX_IS_REJECT},
      {"bad lines spare good ones", "user\nuser a b\nhello\nuser 12345\n", KX_SUCCESS},
      {"no numbers", "user 12345x\nuser -1\nuser 4294967295\n", KX_IS_REJECT},
  };
  for (const auto& item : kCases) {
    SCOPED_TRACE(item.what);
    allow(item.file);
    if (!item.groups.empty() && !groups_can_be_told()) {
      continue;
    }
    EXPECT_EQ(call_as(item.user, item.groups, item.primary), item.status);
  }
}

TEST_F(PeerTest, AnAllowListThatOthersCouldWriteIsRefused) {
  const ServerChild server;
  ASSERT_TRUE(server.ready());
  const struct {
    const char* what;
    mode_t mode;
    uid_t owner;
    int status;
  } kCases[] = {
      {"root's", 0644, 0, KX_SUCCESS},           {"somebody's", 0644, kStranger, KX_IS_REJECT},
      {"group-writable", 0664, 0, KX_IS_REJECT}, {"world-writable", 0646, 0, KX_IS_REJECT},
      {"root's again", 0600, 0, KX_SUCCESS},
  };
  for (const auto& item : kCases) {
    SCOPED_TRACE(item.what);
    allow("user 12345\n");
    ASSERT_EQ(chown(path().c_str(), item.owner, 0), 0);
    ASSERT_EQ(chmod(path().c_str(), item.mode), 0);
    server.log();
    EXPECT_EQ(call_as(kStranger), item.status);
    EXPECT_EQ(call_as(kStranger), item.status);
    const std::string log = server.log();
    if (item.status == KX_SUCCESS) {
      EXPECT_EQ(log, "");
      continue;
    }
    const std::size_t refused = log.find("zorvd.allow refused: ");
    EXPECT_NE(refused, std::string::npos) << log;
    EXPECT_EQ(log.find("refused: ", refused + 30), std::string::npos) << "said once";
    EXPECT_NE(log.find("zorvd: denied uid 12345 pid "), std::string::npos) << log;
  }
  unlink(path().c_str());
  ASSERT_EQ(symlink("/dev/zero", path().c_str()), 0);
  for (int round = 0; round < 60; ++round) {
    ASSERT_EQ(call_as(kStranger), KX_IS_REJECT);
  }
  const std::string log = server.log();
  EXPECT_LE(std::count(log.begin(), log.end(), '\n'), 2 * 33)
      << "denied callers are not all logged";
  EXPECT_EQ(call_as(0), KX_SUCCESS);
}

// A squatter on the abstract name: it gets no request, unless the list names it as the server.
TEST_F(PeerTest, AListenerThatIsNeitherRootNorNamedIsNotTrusted) {
  const ServerChild squatter(kStranger);
  ASSERT_TRUE(squatter.ready());
  EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, kAddress), KX_IS_REJECT);
  allow("user 12345\ngroup 12345\nserver 12346\n");
  EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, kAddress), KX_IS_REJECT);
  allow("server 12345\n");
  EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, kAddress), KX_SUCCESS);
  EXPECT_EQ(call_as(kStranger), KX_SUCCESS) << "one's own kind";
}

// In a user namespace without a map every user looks alike, the caller's own self included.
TEST(Peer, UsersThatCannotBeToldApartAreNotTrusted) {
  Child caller([] {
    harness::RawSocket listener = harness::RawSocket::listening();
    if (unshare(CLONE_NEWUSER) != 0) {
      return 100;
    }
    return bus_call("echo", "", nullptr, 20);
  });
  const int status = caller.wait();
  if (status == 100) {
    GTEST_SKIP() << "no user namespaces here, or a thread of the sanitizer's is in the way";
  }
  EXPECT_EQ(status, KX_IS_REJECT);
}

}  // namespace
