// Calls and what becomes of them: replies of every size, every status, addresses, deadlines.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "harness/bus_peer.h"
#include "harness/test_root.h"
#include "kxbus.h"

namespace {

using harness::bus_call;
using harness::BusServer;
using harness::Frame;
using harness::RawSocket;

TEST(Call, CarriesBodiesOfEverySizeAndTellsWhatTheHandlerDid) {
  const BusServer server;
  const std::string longest(255, 'm');
  const std::pair<std::string, int> kMethods[] = {
      {"echo", KX_SUCCESS},    {"fail", KX_IS_REJECT},    {"throw", KX_IS_REJECT},
      {"again", KX_SUCCESS},   {"ignore", KX_IS_INVALID}, {"echo ", KX_IS_INVALID},
      {"Echo", KX_IS_INVALID}, {longest, KX_SUCCESS},     {"\xff\xfe%s%n", KX_IS_INVALID},
  };
  const int before = harness::descriptors_held();
  for (const std::size_t size : {0u, 1u, 7192u, 65535u, 65536u, 65537u, 1000000u}) {
    std::string body(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
      body[i] = static_cast<char>(i * 7 + i / 251);
    }
    for (const auto& [method, status] : kMethods) {
      SCOPED_TRACE(method + " " + std::to_string(size));
      std::string reply;
      ASSERT_EQ(bus_call(method, body, &reply), status);
      EXPECT_EQ(reply, status == KX_SUCCESS ? body : "");
    }
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
  std::thread thread([server] { kx_start(server); });
  for (const std::size_t size : {65536u, 1u, 7192u, 12u, 100000u, 5u, 4096u * 17, 3u}) {
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
  ASSERT_TRUE(client.send(Frame{.flags = 1, .body_length = 100}.bytes(), {memfd}));
  EXPECT_EQ(client.status(), KX_SUCCESS);
  close(memfd);
  kx_stop(server);
  thread.join();
  kx_free(server);
  EXPECT_TRUE(clean);
}

TEST(Call, RefusesBadArguments) {
  const BusServer server;
  const kx_io_owner io(kx_io_create());
  const std::string long_method(256, 'm');
  const auto call = [&](const char* method, kx_io* content, int timeout_s, int fd) {
    return kx_call(harness::kBusAddress, method, content, timeout_s, fd);
  };
  EXPECT_EQ(call(nullptr, io.get(), 5, -1), KX_IS_INVALID);
  EXPECT_EQ(call("", io.get(), 5, -1), KX_IS_INVALID);
  EXPECT_EQ(call(long_method.c_str(), io.get(), 5, -1), KX_IS_INVALID);
  EXPECT_EQ(call("echo", nullptr, 5, -1), KX_IS_INVALID);
  EXPECT_EQ(call("echo", io.get(), -1, -1), KX_IS_INVALID);
  EXPECT_EQ(call("echo", io.get(), 5, -2), KX_IS_INVALID);
  EXPECT_EQ(call("echo", io.get(), 5, 9999), KX_IS_INVALID);
  EXPECT_EQ(kx_start(nullptr), KX_IS_INVALID);
  kx_stop(nullptr);
  kx_free(nullptr);
}

// How many of this process's descriptors a program started from it would get.
std::size_t inheritable() {
  std::size_t count = 0;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    const int flags = fcntl(descriptor, F_GETFD);
    count += flags >= 0 && (flags & FD_CLOEXEC) == 0 ? 1 : 0;
  }
  return count;
}

// Caller and server are one process here: what either holds is counted while the request is in
// hand, and what the caller holds after it.
TEST(Call, PassesADescriptorAlongAndLeavesNoneToChildren) {
  static std::size_t with_request = 0;
  kx_server* server = kx_create(harness::kBusAddress, 4, 1, [](const char*, kx_io* io, int fd) {
    with_request = inheritable();
    char bytes[8] = {};
    EXPECT_EQ(read(fd, bytes, sizeof bytes), 7);
    EXPECT_STREQ(bytes, "through");
    close(fd);
    kx_reply(io);
  });
  std::thread thread([server] { kx_start(server); });
  const std::size_t before = inheritable();
  for (const std::size_t size : {0u, 100000u}) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(write(ends[1], "through", 7), 7);
    const kx_io_owner io(kx_io_create());
    ASSERT_EQ(kx_io_realloc(io.get(), size), KX_SUCCESS);
    EXPECT_EQ(kx_call(harness::kBusAddress, "m", io.get(), 20, ends[0]), KX_SUCCESS);
    EXPECT_EQ(with_request, before);
    EXPECT_EQ(inheritable(), before);
    close(ends[0]);
    close(ends[1]);
  }
  kx_stop(server);
  thread.join();
  kx_free(server);
}

TEST(Call, KeepsTheRequestWhenItFails) {
  for (const std::size_t size : {10u, 100000u}) {
    const std::string body(size, 'k');
    const kx_io_owner io(kx_io_create());
    kx_io_write(io.get(), body.data(), size);
    EXPECT_EQ(kx_call(harness::kBusAddress, "echo", io.get(), 5, -1), KX_NOT_READY);
    const BusServer server;
    EXPECT_EQ(kx_call(harness::kBusAddress, "fail", io.get(), 5, -1), KX_IS_REJECT);
    EXPECT_EQ(kx_io_write(io.get(), "!", 1), KX_SUCCESS);
    EXPECT_EQ(kx_call(harness::kBusAddress, "echo", io.get(), 5, -1), KX_SUCCESS);
    std::size_t length = 0;
    const auto* bytes = static_cast<const char*>(kx_io_read(io.get(), &length));
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(std::string(bytes, length), body + "!");
  }
}

// A loaded machine may be late, but nothing is early, however often the waiting is interrupted.
TEST(Call, WaitsUntilTheDeadlineAndNotShorter) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  const itimerval ticking{{0, 1000}, {0, 1000}};
  const itimerval still{};
  const RawSocket silent = RawSocket::listening("@silent");
  const RawSocket full = RawSocket::listening("@full");
  const RawSocket first = RawSocket::connected("@full");
  setitimer(ITIMER_REAL, &ticking, nullptr);
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
  setitimer(ITIMER_REAL, &still, nullptr);
  // Whoever waits for room gets it as soon as there is some.
  std::thread late([] { EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, "@full"), KX_IS_PAUSED); });
  full.accept();
  const RawSocket caller = full.accept();
  EXPECT_NE(caller.receive(), "");
  caller.send(Frame{.kind = 2, .detail = KX_IS_PAUSED, .method = ""}.bytes());
  late.join();
}

TEST(Address, EveryKindIsReachedUnderTheRoot) {
  const std::string longest = "@" + std::string(107 - harness::test_root().size(), 'a');
  for (const char* address : {"@kind", "kind", "/var/run/kind.sock", longest.c_str()}) {
    SCOPED_TRACE(address);
    const BusServer server(address);
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
  // A service that died: its socket is there and nobody answers.
  harness::Child dead(
      [address] { return kx_create(address, 4, 1, harness::bus_callback) != nullptr ? 0 : 1; });
  ASSERT_EQ(dead.wait(), 0);
  ASSERT_TRUE(std::filesystem::is_socket(path));
  EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, address), KX_NOT_READY);
  {
    const BusServer server(address);
    EXPECT_EQ(bus_call("echo", "", nullptr, 20, -1, address), KX_SUCCESS);
    struct stat about {};
    EXPECT_TRUE(stat(path.c_str(), &about) == 0 && (about.st_mode & 0777) == 0666);
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder));
  // What is no socket is not ours to remove.
  harness::write_file(address, "precious");
  EXPECT_EQ(kx_create(address, 4, 1, harness::bus_callback), nullptr);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(harness::read_file(address), "precious");
}

TEST(Address, WhatCannotBeIsRefusedByBothSides) {
  const std::string too_long = "@" + std::string(108 - harness::test_root().size(), 'a');
  const struct {
    const char* address;
    int error;
    int backlog_units = 4;
    int dispatchers = 1;
    kx_method_callback callback = harness::bus_callback;
  } kCases[] = {
      {nullptr, EINVAL},    {"", EINVAL},         {"@", EINVAL},
      {"a/b", EINVAL},      {"/folder/", EINVAL}, {too_long.c_str(), ENAMETOOLONG},
      {"/none/s", ENOENT},  {"@a", EINVAL, 0},    {"@a", EINVAL, 129},
      {"@a", EINVAL, 4, 0}, {"@a", EINVAL, 4, 2}, {"@a", EINVAL, 4, 1, nullptr},
  };
  const int before = harness::open_descriptors();
  for (const auto& c : kCases) {
    errno = 0;
    EXPECT_EQ(kx_create(c.address, c.backlog_units, c.dispatchers, c.callback), nullptr);
    EXPECT_EQ(errno, c.error);
    const std::string address = c.address != nullptr ? c.address : "";
    EXPECT_EQ(bus_call("echo", "", nullptr, 5, -1, c.address),
              address == "/none/s" || address == "@a" ? KX_NOT_READY : KX_IS_INVALID);
  }
  EXPECT_EQ(harness::open_descriptors(), before);
}

}  // namespace
