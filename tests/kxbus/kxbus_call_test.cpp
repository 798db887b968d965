// Buffers, calls and what becomes of them: sizes, statuses, deadlines, addresses, who may.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/fuse.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>

#include "harness/bus_peer.h"
#include "harness/process.h"
#include "harness/test_root.h"
#include "kx_log.h"

namespace {

namespace fs = std::filesystem;
using harness::bus_call;
using harness::bus_callback;
using harness::BusServer;
using harness::Child;
using harness::content;
using harness::kBusAddress;
using harness::RawSocket;

TEST(Buffer, FollowsAString) {
  for (const std::size_t step : {1u, 5200u, 8192u, 65535u, 65536u, 65537u, 300000u}) {
    SCOPED_TRACE(step);
    const kx_io_owner io(kx_io_create());
    std::string expected;
    const auto resize = [&](std::size_t size) {
      EXPECT_EQ(kx_io_realloc(io.get(), size), KX_SUCCESS);
      expected.resize(size);
    };
    for (int round = 0; round < 9; ++round) {
      const std::string part(step, static_cast<char>('a' + round));
      EXPECT_EQ(kx_io_write(io.get(), part.data(), step), KX_SUCCESS);
      expected += part;
      resize(expected.size() + step);
      const std::size_t middle = expected.size() / 2 - step / 2;
      EXPECT_EQ(kx_io_overwrite(io.get(), middle, part.data(), step), KX_SUCCESS);
      expected.replace(middle, step, part);
      std::string copied(expected.size() - middle, '?');
      EXPECT_EQ(kx_io_copy(io.get(), middle, copied.data(), copied.size()), KX_SUCCESS);
      ASSERT_EQ(copied, expected.substr(middle));
      if (round % 3 == 2) {
        ASSERT_EQ(content(io), expected);
        resize(expected.size() - step - 1);
        resize(expected.size() + 100);
      }
    }
    char byte = 'b';
    EXPECT_EQ(kx_io_copy(io.get(), expected.size(), &byte, 1), KX_IS_INVALID);
    EXPECT_EQ(kx_io_overwrite(io.get(), 1, &byte, SIZE_MAX), KX_IS_INVALID);
    EXPECT_EQ(kx_io_write(io.get(), &byte, std::size_t{1} << 30), KX_IS_INVALID);
    EXPECT_EQ(kx_io_realloc(io.get(), (std::size_t{1} << 30) + 1), KX_IS_INVALID);
    EXPECT_EQ(content(io), expected);
    resize(0);
    EXPECT_EQ(content(io), "");
  }
}

TEST(Call, CarriesBodiesOfEverySizeAndTellsWhatTheHandlerDid) {
  const std::string longest(255, 'm');
  const std::pair<std::string, int> kMethods[] = {
      {"echo", KX_SUCCESS},  {"fail", KX_IS_REJECT},         {"throw", KX_IS_REJECT},
      {"again", KX_SUCCESS}, {"echo ", KX_IS_INVALID},       {"Echo", KX_IS_INVALID},
      {longest, KX_SUCCESS}, {longest + "m", KX_IS_INVALID}, {"", KX_IS_INVALID}};
  const BusServer server;
  for (const std::size_t size : {0u, 1u, 7192u, 65528u, 65536u, 1000000u}) {
    std::string body = std::string(size / 2, 'x') + std::string(size - size / 2, 'y');
    const kx_io_owner io(kx_io_create());
    ASSERT_EQ(kx_io_write(io.get(), body.data(), size), KX_SUCCESS);
    for (const auto& [method, status] : kMethods) {
      SCOPED_TRACE(method + " " + std::to_string(size));
      EXPECT_EQ(kx_call(kBusAddress, method.c_str(), io.get(), 20, -1), status);
      ASSERT_EQ(content(io), body);
      ASSERT_EQ(kx_io_write(io.get(), "!", 1), KX_SUCCESS);
      body += "!";
    }
    EXPECT_EQ(kx_call("@nobody", "echo", io.get(), 20, -1), KX_NOT_READY);
    EXPECT_EQ(kx_call(kBusAddress, "echo", io.get(), 20, 9999), KX_IS_INVALID);
    EXPECT_EQ(content(io), body);
  }
}

// How many descriptors, the caller's and the server's, a child of this process would get.
int inheritable() {
  int count = 0;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    count += fcntl(descriptor, F_GETFD) == 0 ? 1 : 0;
  }
  return count;
}

TEST(Call, PassesADescriptorAlongAndLeavesNoneToChildren) {
  static const int before = inheritable();
  const os::Descriptor passed(memfd_create("passed", MFD_CLOEXEC));
  const BusServer server(kBusAddress, [](const char*, kx_io* io, int fd) {
    EXPECT_EQ(inheritable(), before);
    EXPECT_EQ(write(fd, "through", 7), 7);
    close(fd);
    kx_reply(io);
  });
  for (const std::size_t size : {0u, 100000u}) {
    EXPECT_EQ(bus_call("m", std::string(size, 'x'), nullptr, 20, passed.get()), KX_SUCCESS);
  }
  EXPECT_EQ(lseek(passed.get(), 0, SEEK_CUR), 14);  // is shared with the handler
}

// A loaded machine may be late, but nothing is early, however often the waiting is interrupted.
TEST(Call, WaitsUntilTheDeadlineAndNotShorter) {
  const RawSocket silent = RawSocket::listening("@silent");
  const RawSocket full = RawSocket::listening("@full");
  const RawSocket first = RawSocket::connected("@full");
  signal(SIGALRM, [](int) {});
  ualarm(1000, 1000);
  for (const auto& [address, status] : {std::pair{"@silent", KX_TIMEOUT}, {"@full", KX_IS_BUSY}}) {
    for (const int timeout_s : {0, 1}) {
      const auto begin = std::chrono::steady_clock::now();
      EXPECT_EQ(bus_call("echo", "", nullptr, timeout_s, -1, address), status);
      EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(timeout_s));
      if (status == KX_TIMEOUT) {
        silent.accept();
      }
    }
  }
}

TEST(Address, IsClaimedUnderTheRootAndGivenBack) {
  const char* path = "/var/run/claimed.sock";
  RawSocket::listening(path);  // left by a service that died
  EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, path), KX_NOT_READY);
  const std::string longest = "@" + std::string(107 - harness::test_root().size(), 'a');
  const std::pair<const char*, const char*> kServedAndCalled[] = {
      {"kind", "@/var/run/kind.sock"}, {path, path}, {longest.c_str(), longest.c_str()}};
  for (const auto& [served, called] : kServedAndCalled) {
    SCOPED_TRACE(served);
    const BusServer server(served);
    EXPECT_EQ(kx_create(served, 4, 1, bus_callback), nullptr);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, called), KX_SUCCESS);
    EXPECT_TRUE(served != path ||
                fs::status(harness::test_root() + path).permissions() == fs::perms(0666));
  }
  EXPECT_TRUE(fs::is_empty(harness::test_root() + "/var/run"));
  EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, path), KX_NOT_READY);
  harness::write_file(path, "precious");
  EXPECT_EQ(kx_create(path, 4, 1, bus_callback), nullptr);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(harness::read_file(path), "precious");
  for (const std::string& wrong :
       std::initializer_list<std::string>{"", longest + "a", "@", "a/b", "/folder/"}) {
    EXPECT_EQ(kx_create(wrong.c_str(), 4, 1, bus_callback), nullptr);
    EXPECT_EQ(errno, wrong.size() > 20 ? ENAMETOOLONG : EINVAL) << wrong;
    EXPECT_EQ(bus_call("echo", "", nullptr, 5, -1, wrong.c_str()), KX_IS_INVALID) << wrong;
  }
}

constexpr const char* kAllowFile = "/etc/config/kxbus/bus.allow";
constexpr uid_t kStranger = 12345;
constexpr gid_t kGroup = 23456;

// A process of somebody else's.
Child stranger(gid_t primary, const std::vector<gid_t>& groups, const std::function<int()>& body) {
  return Child([&] {
    const bool changed = setgroups(groups.size(), groups.data()) == 0 &&
                         setresgid(primary, primary, primary) == 0 &&
                         setresuid(kStranger, kStranger, kStranger) == 0;
    return changed ? body() : 100;
  });
}

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
    Child caller = stranger(primary, groups, body);
    EXPECT_EQ(kx_start(server_), KX_SUCCESS);
    kx_free(server_);
    return caller.wait();
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
    std::generate(mute.begin(), mute.end(), [] { return RawSocket::connected(); });
    call();
    return static_cast<int>(std::count_if(mute.begin(), mute.end(), [](const RawSocket& client) {
      char answer;
      return recv(client.get(), &answer, 1, MSG_DONTWAIT) == 1;
    }));
  };
  const int told = serve(1, {}, crowd);
  EXPECT_TRUE(told == 2 || told == 3) << told << " of those beyond 64, the last caller included";
}

// Answers everything but the FLUSH of a close.
void serve_files(int device) {
  alignas(fuse_in_header) char request[FUSE_MIN_READ_BUFFER + 4096];
  while (read(device, request, sizeof request) > 0) {
    const auto& asked = *reinterpret_cast<const fuse_in_header*>(request);
    struct {
      fuse_out_header header;
      fuse_init_out init;
    } answer{};
    answer.header.unique = asked.unique;
    answer.header.len = sizeof answer.header;
    if (asked.opcode == FUSE_INIT) {
      answer.init.major = FUSE_KERNEL_VERSION;
      answer.init.minor = 31;
      answer.init.max_write = 4096;
      answer.header.len = sizeof answer;
    } else if (asked.opcode == FUSE_OPEN) {
      answer.header.len += sizeof(fuse_open_out);
    } else {
      answer.header.error = -ENOSYS;
    }
    if (asked.opcode != FUSE_FLUSH && write(device, &answer, answer.header.len) < 0) {
      return;
    }
  }
}

// Mounts a file system of this user's own; the process that serves it, -1 where that may not be.
pid_t mount_own_files(const char* path) {
  prctl(PR_SET_DUMPABLE, 1);  // owns its files in /proc again
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    return -1;
  }
  std::ofstream("/proc/self/uid_map") << "12345 12345 1";
  std::ofstream("/proc/self/setgroups") << "deny";
  std::ofstream("/proc/self/gid_map") << "1 1 1";
  const os::Descriptor device(open("/dev/fuse", O_RDWR | O_CLOEXEC));
  const std::string options =
      "rootmode=100644,user_id=12345,group_id=1,fd=" + std::to_string(device.get());
  if (mount("test", path, "fuse", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
    return -1;
  }
  const pid_t serving = fork();
  if (serving == 0) {
    alarm(20);
    serve_files(device.get());
    _exit(0);
  }
  return serving;
}

TEST_F(PeerTest, AFileThatNeverClosesHoldsUpNobody) {
  const std::string path = harness::test_root() + "/file";
  harness::write_file("/file", "");
  for (const auto& [list, status] :
       {std::pair{"user 12346\n", KX_IS_REJECT}, {"user 12345\n", KX_IS_INVALID}}) {
    allow(list);
    const int answer = serve(1, {}, [&path] {
      const pid_t serving = mount_own_files(path.c_str());
      const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      int refused = 77;
      for (int i = 0; i < 20 && serving > 0; ++i) {  // more than there may be children
        const RawSocket caller = RawSocket::connected();
        caller.send(harness::Frame{.flags = 2}.bytes(), {file});
        refused = caller.status();
      }
      kill(serving, SIGKILL);  // or this process, too, never ends
      return refused;
    });
    if (answer == 77) {
      GTEST_SKIP() << "no FUSE for ordinary users here";
    }
    EXPECT_EQ(answer, status) << list;
  }
}

TEST_F(PeerTest, UnreadRepliesInMemoryAreBounded) {
#ifdef __arm__
  GTEST_SKIP() << "the emulator's children tell of their end, which ends this server";
#endif
  allow("user 12345\n");
  EXPECT_EQ(serve(1, {},
                  [] {
                    const int body = memfd_create("body", MFD_CLOEXEC | MFD_ALLOW_SEALING);
                    const bool sealed =
                        ftruncate(body, 100000) == 0 && fcntl(body, F_ADD_SEALS, 0xF) == 0;
                    std::vector<RawSocket> unread(32);
                    for (RawSocket& caller : unread) {
                      caller = RawSocket::connected();
                      caller.send(harness::Frame{.flags = 1, .body_length = 100000}.bytes(),
                                  {body});
                    }
                    const std::string large(100000, 'x');
                    const bool one_too_many = bus_call("echo", large) == KX_IS_BUSY;
                    const bool small_ones = bus_call("echo", "") == KX_SUCCESS;
                    const bool came = unread.front().status() == KX_SUCCESS;
                    const bool again = bus_call("echo", large) == KX_SUCCESS;
                    return sealed && one_too_many && small_ones && came && again ? 1 : 0;
                  }),
            1);
}

TEST_F(PeerTest, AListenerThatIsNeitherRootNorNamedIsNotTrusted) {
  const Child squatter = stranger(
      1, {}, [] { return kx_start(kx_create(harness::kBusAddress, 4, 1, harness::bus_callback)); });
  ASSERT_TRUE(harness::eventually([] { return RawSocket::connected().get() >= 0; }));
  allow("user 12345\ngroup 12345\nserver 12346\n");
  EXPECT_EQ(call(), KX_IS_REJECT);
  EXPECT_EQ(stranger(1, {}, call).wait(), KX_SUCCESS) << "one's own kind";
  allow("server 12345\n");
  EXPECT_EQ(call(), KX_SUCCESS);
}

}  // namespace
