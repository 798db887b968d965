// Calls and what becomes of them: replies of every size, every status, addresses, deadlines.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "harness/bus_peer.h"
#include "harness/process.h"
#include "harness/test_root.h"

namespace {

namespace fs = std::filesystem;
using harness::bus_call;
using harness::bus_callback;
using harness::BusServer;
using harness::content;
using harness::Frame;
using harness::kBusAddress;
using harness::RawSocket;

// The buffer of a call that failed still holds the request, to be tried again or changed.
TEST(Call, CarriesBodiesOfEverySizeAndTellsWhatTheHandlerDid) {
  const std::string longest(255, 'm');
  const std::pair<std::string, int> kMethods[] = {
      {"echo", KX_SUCCESS},  {"fail", KX_IS_REJECT},         {"throw", KX_IS_REJECT},
      {"again", KX_SUCCESS}, {"echo ", KX_IS_INVALID},       {"Echo", KX_IS_INVALID},
      {longest, KX_SUCCESS}, {longest + "m", KX_IS_INVALID}, {"", KX_IS_INVALID}};
  const BusServer server;
  const int before = harness::open_descriptors();
  for (const std::size_t size : {0u, 1u, 7192u, 65528u, 65536u, 1000000u}) {
    std::string body(size, 'x');
    for (std::size_t i = 0; i < size; i += 250) {
      body[i] = static_cast<char>(i);
    }
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
  EXPECT_TRUE(harness::eventually([&] { return harness::open_descriptors() == before; }));
}

// What earlier requests and replies left in the server's buffer must not show behind a later
// payload.
TEST(Call, RequestsAreFollowedByZeros) {
  const BusServer server("@zeros", [](const char*, kx_io* io, int) {
    std::size_t length = 0;
    const auto* bytes = static_cast<const char*>(kx_io_read(io, &length));
    const std::string behind(bytes + length, 8192 - std::min<std::size_t>(length, 8191));
    kx_io_realloc(io, 0);
    kx_io_write(io, std::string(70000, 'r').data(), length > 4000 ? 70000 : 9000);
    if (behind == std::string(behind.size(), '\0')) {
      kx_reply(io);
    }
  });
  for (const std::size_t size : {65536u, 1u, 7192u, 12u, 100000u, 5u, 4096u * 17, 3u}) {
    EXPECT_EQ(bus_call("m", std::string(size, 'q'), nullptr, 20, -1, "@zeros"), KX_SUCCESS);
  }
  // A page is shared whole, with what its sender wrote behind the end of the file.
  const os::Descriptor memfd(memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  ASSERT_EQ(ftruncate(memfd.get(), 100), 0);
  void* page = mmap(nullptr, 4096, PROT_WRITE, MAP_SHARED, memfd.get(), 0);
  memset(page, 'x', 4096);
  munmap(page, 4096);
  ASSERT_EQ(fcntl(memfd.get(), F_ADD_SEALS, 0xF), 0);
  const RawSocket client = RawSocket::connected("@zeros");
  ASSERT_TRUE(client.send(Frame{.flags = 1, .body_length = 100}.bytes(), {memfd.get()}));
  EXPECT_EQ(client.status(), KX_SUCCESS);
}

// How many of this process's descriptors, the caller's and the server's, a program started from it
// would get.
int inheritable() {
  int count = 0;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    count += fcntl(descriptor, F_GETFD) == 0 ? 1 : 0;
  }
  return count;
}

TEST(Call, PassesADescriptorAlongAndLeavesNoneToChildren) {
  static int with_request = 0;
  const BusServer server(kBusAddress, [](const char*, kx_io* io, int fd) {
    with_request = inheritable();
    EXPECT_EQ(write(fd, "through", 7), 7);
    close(fd);
    kx_reply(io);
  });
  const int before = inheritable();
  for (const std::size_t size : {0u, 100000u}) {
    int ends[2];
    char bytes[8] = {};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(bus_call("m", std::string(size, 'x'), nullptr, 20, ends[1]), KX_SUCCESS);
    close(ends[1]);
    EXPECT_EQ(read(ends[0], bytes, sizeof bytes), 7);
    EXPECT_EQ(with_request, before);
    close(ends[0]);
  }
}

// A loaded machine may be late, but nothing is early, however often the waiting is interrupted.
TEST(Call, WaitsUntilTheDeadlineAndNotShorter) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  const itimerval ticking{{0, 1000}, {0, 1000}};
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
}

TEST(Address, IsClaimedUnderTheRootAndGivenBack) {
  const char* path = "/var/run/claimed.sock";
  // A service that died: its socket is there and nobody answers.
  harness::Child dead([path] { return kx_create(path, 4, 1, bus_callback) != nullptr ? 0 : 1; });
  ASSERT_EQ(dead.wait(), 0);
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
  // What is no socket is not ours to remove.
  harness::write_file(path, "precious");
  EXPECT_EQ(kx_create(path, 4, 1, bus_callback), nullptr);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(harness::read_file(path), "precious");
}

TEST(Address, WhatCannotBeIsRefusedByBothSides) {
  const std::string too_long = "@" + std::string(108 - harness::test_root().size(), 'a');
  for (const char* address : {"", "@", "a/b", "/folder/", too_long.c_str()}) {
    EXPECT_EQ(kx_create(address, 4, 1, bus_callback), nullptr);
    EXPECT_EQ(errno, address == too_long ? ENAMETOOLONG : EINVAL) << address;
    EXPECT_EQ(bus_call("echo", "", nullptr, 5, -1, address), KX_IS_INVALID) << address;
  }
}

}  // namespace
