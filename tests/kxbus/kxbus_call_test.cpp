// Calls and what becomes of them: replies of every size, every status, addresses, deadlines.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "harness/bus_peer.h"
#include "harness/test_root.h"
#include "kxbus.h"

namespace {

using harness::bus_call;
using harness::BusServer;
using harness::RawSocket;

TEST(Call, CarriesBodiesOfEverySizeBothWays) {
  const BusServer server;
  const int before = harness::descriptors_held();
  for (const std::size_t size :
       {0u, 1u, 36u, 4096u, 7192u, 65535u, 65536u, 65537u, 131072u, 1000000u}) {
    SCOPED_TRACE(size);
    std::string body(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
      body[i] = static_cast<char>(i * 7 + i / 251);
    }
    std::string reply;
    ASSERT_EQ(bus_call("echo", body, &reply), KX_SUCCESS);
    EXPECT_EQ(reply, body);
    EXPECT_EQ(bus_call(std::string(255, 'm'), body), KX_SUCCESS) << "the longest method";
  }
  EXPECT_EQ(harness::descriptors_held(), before);
}

// What earlier requests and replies left in the server's buffer must not show behind a later
// payload.
TEST(Call, RequestsAreFollowedByZeros) {
  static std::atomic<bool> clean{true};
  kx_server* server = kx_create("@zeros", 4, 1, [](const char*, kx_io* io, int) {
    std::size_t length = 0;
    const auto* bytes = static_cast<const char*>(kx_io_read(io, &length));
    for (std::size_t i = length; i < 8192 && bytes != nullptr; ++i) {
      clean = clean && bytes[i] == '\0';
    }
    clean = clean && (bytes == nullptr || bytes[length] == '\0');
    kx_io_realloc(io, 0);
    kx_io_write(io, std::string(70000, 'r').data(), length > 4000 ? 70000 : 9000);
    kx_reply(io);
  });
  ASSERT_NE(server, nullptr);
  std::thread thread([server] { kx_start(server); });
  for (const std::size_t size :
       {65536u, 1u, 7192u, 12u, 100000u, 5u, 4096u * 17, 4096u * 16 + 1, 3u}) {
    const RawSocket refused = RawSocket::connected("@zeros");
    ASSERT_TRUE(refused.send(std::string(9000, 'r')));
    EXPECT_EQ(refused.status(), KX_IS_INVALID);
    EXPECT_EQ(bus_call("m", std::string(size, 'q'), nullptr, 20, -1, "@zeros"), KX_SUCCESS);
  }
  // A page is shared whole, with what its sender wrote behind the end of the file.
  const int memfd = memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  ASSERT_EQ(ftruncate(memfd, 100), 0);
  void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, memfd, 0);
  ASSERT_NE(page, MAP_FAILED);
  memset(page, 'x', 4096);
  munmap(page, 4096);
  ASSERT_EQ(fcntl(memfd, F_ADD_SEALS, static_cast<int>(harness::kAllSeals)), 0);
  const RawSocket client = RawSocket::connected("@zeros");
  ASSERT_TRUE(client.send(harness::Frame{.flags = 1, .body_length = 100}.bytes(), {memfd}));
  EXPECT_EQ(client.status(), KX_SUCCESS);
  close(memfd);
  kx_stop(server);
  thread.join();
  kx_free(server);
  EXPECT_TRUE(clean);
}

TEST(Call, StatusTellsWhatTheHandlerDid) {
  const BusServer server;
  const struct {
    const char* method;
    int status;
  } kCases[] = {
      {"echo", KX_SUCCESS},    {"fail", KX_IS_REJECT},    {"throw", KX_IS_REJECT},
      {"again", KX_SUCCESS},   {"ignore", KX_IS_INVALID}, {"echo ", KX_IS_INVALID},
      {"Echo", KX_IS_INVALID}, {"mark", KX_SUCCESS},      {"\xff\xfe%s%n", KX_IS_INVALID},
  };
  const int before = harness::descriptors_held();
  for (int round = 0; round < 3; ++round) {
    for (const auto& item : kCases) {
      SCOPED_TRACE(item.method);
      EXPECT_EQ(bus_call(item.method, "body"), item.status);
      EXPECT_EQ(bus_call(item.method, std::string(100000, 'b')), item.status);
    }
  }
  EXPECT_EQ(harness::descriptors_held(), before);
}

TEST(Call, RefusesBadArguments) {
  const BusServer server;
  kx_io* io = kx_io_create();
  const std::string long_method(256, 'm');
  const std::string long_address = "@" + std::string(200, 'a');
  const struct {
    const char* address;
    const char* method;
    kx_io* io;
    int timeout_s;
    int fd;
  } kCases[] = {
      {nullptr, "echo", io, 5, -1},
      {"", "echo", io, 5, -1},
      {"@", "echo", io, 5, -1},
      {"relative/path", "echo", io, 5, -1},
      {"/folder/", "echo", io, 5, -1},
      {long_address.c_str(), "echo", io, 5, -1},
      {harness::kBusAddress, nullptr, io, 5, -1},
      {harness::kBusAddress, "", io, 5, -1},
      {harness::kBusAddress, long_method.c_str(), io, 5, -1},
      {harness::kBusAddress, "echo", nullptr, 5, -1},
      {harness::kBusAddress, "echo", io, -1, -1},
      {harness::kBusAddress, "echo", io, 5, -2},
      {harness::kBusAddress, "echo", io, 5, 9999},
  };
  for (const auto& item : kCases) {
    EXPECT_EQ(kx_call(item.address, item.method, item.io, item.timeout_s, item.fd), KX_IS_INVALID);
  }
  kx_io_free(io);
  EXPECT_EQ(kx_start(nullptr), KX_IS_INVALID);
  kx_stop(nullptr);
  kx_free(nullptr);
}

TEST(Call, PassesADescriptorAlong) {
  const BusServer server;
  const int before = harness::descriptors_held();
  for (const std::size_t size : {0u, 100000u}) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(write(ends[1], "through", 7), 7);
    std::string reply;
    EXPECT_EQ(bus_call("read", std::string(size, 'b'), &reply, 20, ends[0]), KX_SUCCESS);
    EXPECT_EQ(reply, "through");
    EXPECT_EQ(bus_call("echo", "", nullptr, 20, ends[0]), KX_SUCCESS);
    close(ends[0]);
    close(ends[1]);
  }
  EXPECT_EQ(harness::descriptors_held(), before);
}

TEST(Call, KeepsTheRequestWhenItFails) {
  for (const std::size_t size : {10u, 100000u}) {
    const std::string body(size, 'k');
    kx_io* io = kx_io_create();
    kx_io_write(io, body.data(), size);
    EXPECT_EQ(kx_call(harness::kBusAddress, "echo", io, 5, -1), KX_NOT_READY);
    const BusServer server;
    EXPECT_EQ(kx_call(harness::kBusAddress, "fail", io, 5, -1), KX_IS_REJECT);
    EXPECT_EQ(kx_io_write(io, "!", 1), KX_SUCCESS);
    EXPECT_EQ(kx_call(harness::kBusAddress, "echo", io, 5, -1), KX_SUCCESS);
    std::size_t length = 0;
    const auto* bytes = static_cast<const char*>(kx_io_read(io, &length));
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(std::string(bytes, length), body + "!");
    kx_io_free(io);
  }
}

double seconds() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// SIGALRM every millisecond, whoever of the process's threads it meets.
class TickingTimer {
 public:
  explicit TickingTimer(bool on) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    set(on ? 1000 : 0);
  }
  ~TickingTimer() { set(0); }

 private:
  static void set(suseconds_t microseconds) {
    const itimerval timer{{0, microseconds}, {0, microseconds}};
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
};

// The deadline is a floor here, never a ceiling: a loaded machine may be late, not early.
TEST(Call, WaitsUntilTheDeadlineAndNotShorter) {
  const RawSocket silent = RawSocket::listening("@silent");
  const RawSocket full = RawSocket::listening("@full");
  const RawSocket first = RawSocket::connected("@full");
  for (const bool interrupted : {false, true}) {
    const TickingTimer timer(interrupted);
    for (const int timeout_s : {0, 1}) {
      const double begin = seconds();
      EXPECT_EQ(bus_call("echo", "", nullptr, timeout_s, -1, "@silent"), KX_TIMEOUT);
      EXPECT_GE(seconds() - begin, timeout_s);
      silent.accept();
      const double next = seconds();
      EXPECT_EQ(bus_call("echo", "", nullptr, timeout_s, -1, "@full"), KX_IS_BUSY);
      EXPECT_GE(seconds() - next, timeout_s);
    }
  }
}

TEST(Address, EveryKindIsReachedUnderTheRoot) {
  for (const char* address : {"@kind", "kind", "@/var/run/zorvd.sock", "/var/run/kind.sock"}) {
    SCOPED_TRACE(address);
    const BusServer server(address);
    EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, address), KX_SUCCESS);
    errno = 0;
    EXPECT_EQ(kx_create(address, 4, 1, harness::bus_callback), nullptr);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, address), KX_SUCCESS);
  }
  const BusServer named("service");
  EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, "@/var/run/service.sock"), KX_SUCCESS);
}

TEST(Address, APathIsClaimedAndGivenBack) {
  const std::string folder = harness::test_root() + "/var/run";
  const std::string path = folder + "/claimed.sock";
  const char* address = "/var/run/claimed.sock";
  {
    // A service that died: its socket is there and nobody answers.
    harness::Child dead(
        [address] { return kx_create(address, 4, 1, harness::bus_callback) != nullptr ? 0 : 1; });
    ASSERT_EQ(dead.wait(), 0);
    ASSERT_TRUE(std::filesystem::is_socket(path));
    EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, address), KX_NOT_READY);
  }
  {
    const BusServer server(address);
    EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, address), KX_SUCCESS);
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder));
  // What is no socket is not ours to remove.
  harness::write_file(address, "precious");
  EXPECT_EQ(kx_create(address, 4, 1, harness::bus_callback), nullptr);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(harness::read_file(address), "precious");
}

TEST(Address, CreateRefusesWhatCannotBe) {
  const std::string long_name = "@" + std::string(108 - harness::test_root().size(), 'a');
  const std::string longest = long_name.substr(0, long_name.size() - 1);
  const struct {
    const char* address;
    int backlog_units;
    int dispatchers;
    kx_method_callback callback;
    int error;
  } kCases[] = {
      {"@a", 0, 1, harness::bus_callback, EINVAL},
      {"@a", 129, 1, harness::bus_callback, EINVAL},
      {"@a", 4, 0, harness::bus_callback, EINVAL},
      {"@a", 4, 2, harness::bus_callback, EINVAL},
      {"@a", 4, 1, nullptr, EINVAL},
      {nullptr, 4, 1, harness::bus_callback, EINVAL},
      {"@", 4, 1, harness::bus_callback, EINVAL},
      {"a/b", 4, 1, harness::bus_callback, EINVAL},
      {"/none/s", 4, 1, harness::bus_callback, ENOENT},
      {long_name.c_str(), 4, 1, harness::bus_callback, ENAMETOOLONG},
  };
  const int before = harness::open_descriptors();
  for (const auto& item : kCases) {
    errno = 0;
    EXPECT_EQ(kx_create(item.address, item.backlog_units, item.dispatchers, item.callback),
              nullptr);
    EXPECT_EQ(errno, item.error);
  }
  EXPECT_EQ(harness::open_descriptors(), before);
  const BusServer server(longest.c_str());
  EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, longest.c_str()), KX_SUCCESS);
}

}  // namespace
