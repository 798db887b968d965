// What the running daemon cannot show of hostile peers: callers that have gone, sockets that
// linger, a server without its spare descriptor, and servers that break the protocol.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "harness/bus_peer.h"
#include "kxbus.h"

namespace {

using harness::bus_call;
using harness::BusServer;
using harness::Frame;
using harness::kAllSeals;
using harness::RawSocket;

std::vector<int> many_descriptors(int count) {
  std::vector<int> descriptors(static_cast<std::size_t>(count), STDERR_FILENO);
  return descriptors;
}

TEST(HostileClient, OneThatHasGoneIsSkipped) {
  kx_server* server = kx_create(harness::kBusAddress, 4, 1, harness::bus_callback);
  ASSERT_NE(server, nullptr);
  {
    // All of them are waiting before the server looks; one of ten has stayed.
    std::vector<RawSocket> stay;
    for (int i = 0; i < 100; ++i) {
      RawSocket client = RawSocket::connected();
      ASSERT_TRUE(client.send(Frame{.method = "mark"}.bytes()));
      if (i % 10 == 0) {
        stay.push_back(std::move(client));
      }
    }
    std::thread thread([server] { kx_start(server); });
    for (const RawSocket& client : stay) {
      EXPECT_EQ(client.status(), KX_SUCCESS);
    }
    EXPECT_EQ(bus_call("echo", ""), KX_SUCCESS);
    EXPECT_EQ(harness::marks(), 10);
    kx_stop(server);
    thread.join();
  }
  kx_free(server);
}

// The last close of a socket that was told to linger waits for as long; here that would be the
// server's.
TEST(HostileClient, LingeringSocketsDoNotStopTheServer) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in name{};
  socklen_t length = sizeof name;
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener, reinterpret_cast<sockaddr*>(&name), length) != 0) {
    GTEST_SKIP() << "no loopback network here";
  }
  listen(listener, 8);
  getsockname(listener, reinterpret_cast<sockaddr*>(&name), &length);
  const struct {
    std::string bytes;
    int status;
  } kCases[] = {{Frame{}.bytes(), KX_IS_INVALID},
                {Frame{.magic = 0}.bytes(), KX_IS_INVALID},
                {Frame{.flags = 1, .body_length = 1}.bytes(), KX_IS_INVALID},
                {Frame{.flags = 2}.bytes(), KX_SUCCESS},
                {"", KX_IS_INVALID}};
  kx_server* server = kx_create(harness::kBusAddress, 4, 1, harness::bus_callback);
  std::vector<RawSocket> clients;
  for (const auto& item : kCases) {
    const int lingering = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(lingering, reinterpret_cast<sockaddr*>(&name), length), 0);
    const linger an_hour{1, 3600};
    setsockopt(lingering, SOL_SOCKET, SO_LINGER, &an_hour, sizeof an_hour);
    const std::string unsent(1 << 20, 'x');
    while (send(lingering, unsent.data(), unsent.size(), MSG_DONTWAIT) > 0) {
    }
    clients.push_back(RawSocket::connected());
    ASSERT_TRUE(clients.back().send(item.bytes, {lingering}));
    close(lingering);  // the one on the way is the last now
  }
  std::thread thread([server] { kx_start(server); });
  for (std::size_t i = 0; i < clients.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(clients[i].status(), kCases[i].status);
  }
  EXPECT_EQ(bus_call("echo", ""), KX_SUCCESS);
  kx_stop(server);
  thread.join();
  kx_free(server);
  close(listener);
}

// Descriptors run out, once with the spare one at hand and once without. Callers are told or wait;
// the process does not spin; with descriptors back it serves again.
TEST(HostileClient, RunningOutOfDescriptorsIsNotABusyLoop) {
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  harness::Child server([&ready] {
    kx_server* made = kx_create(harness::kBusAddress, 4, 1, harness::bus_callback);
    return write(ready[1], "r", 1) == 1 ? kx_start(made) : 1;
  });
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  const int before = harness::descriptors_held();
  while (harness::open_descriptors(server.pid()) > before - 2) {
    sched_yield();  // that call had its connection and the folder it counted open
  }
  rlimit usual{};
  ASSERT_EQ(prlimit(server.pid(), RLIMIT_NOFILE, nullptr, &usual), 0);
  const auto lowest = static_cast<rlim_t>(harness::lowest_free_descriptor(server.pid()));
  const struct {
    rlim_t limit;
    int status;
  } kCases[] = {{lowest, KX_IS_BUSY}, {0, KX_TIMEOUT}};
  for (const auto& item : kCases) {
    const rlimit scarce{item.limit, usual.rlim_max};
    ASSERT_EQ(prlimit(server.pid(), RLIMIT_NOFILE, &scarce, nullptr), 0);
    const double begin = harness::cpu_seconds(server.pid());
    for (int round = 0; round < 3; ++round) {
      EXPECT_EQ(bus_call("echo", "", nullptr, 1), item.status);
    }
    EXPECT_LT(harness::cpu_seconds(server.pid()) - begin, 0.5);
    ASSERT_EQ(prlimit(server.pid(), RLIMIT_NOFILE, &usual, nullptr), 0);
    EXPECT_EQ(bus_call("echo", ""), KX_SUCCESS);
    EXPECT_EQ(harness::descriptors_held(), before);
  }
  close(ready[0]);
  close(ready[1]);
}

TEST(HostileServer, AnswersNeverReachTheCallerUnchecked) {
  const std::string body(70000, 'b');
  const Frame success{.kind = 2, .detail = 0, .method = ""};
  Frame shared = success;
  shared.flags = 1;
  shared.body_length = 70000;
  Frame lying = success;
  lying.body_length = 5000;
  Frame request;
  Frame unknown = success;
  unknown.detail = KX_IS_INVALID + 1;
  Frame failed = success;
  failed.detail = KX_IS_PAUSED;
  Frame failed_with_body = failed;
  failed_with_body.body = "x";
  Frame passing_back = success;
  passing_back.flags = 2;
  Frame last = success;
  last.detail = KX_IS_INVALID;
  const int good = harness::make_memfd(body, kAllSeals);
  const int unsealed = harness::make_memfd(body, 0);
  const int shrinking = harness::make_memfd(body, F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
  const int shortened = harness::make_memfd(body.substr(1), kAllSeals);
  const struct {
    const char* what;
    std::string bytes;
    std::vector<int> descriptors;
    int status;
  } kCases[] = {
      {"sealed memory", shared.bytes(), {good}, KX_SUCCESS},
      {"a status", failed.bytes(), {}, KX_IS_PAUSED},
      {"the last status", last.bytes(), {}, KX_IS_INVALID},
      {"a failure with a body", failed_with_body.bytes(), {}, KX_IO_FAILURE},
      {"a descriptor passed back", passing_back.bytes(), {good}, KX_IO_FAILURE},
      {"unsealed memory", shared.bytes(), {unsealed}, KX_IO_FAILURE},
      {"memory that may shrink", shared.bytes(), {shrinking}, KX_IO_FAILURE},
      {"short memory", shared.bytes(), {shortened}, KX_IO_FAILURE},
      {"memory not sent", shared.bytes(), {}, KX_IO_FAILURE},
      {"something else", shared.bytes(), {STDERR_FILENO}, KX_IO_FAILURE},
      {"253 descriptors", success.bytes(), many_descriptors(253), KX_IO_FAILURE},
      {"unannounced descriptor", success.bytes(), {good}, KX_IO_FAILURE},
      {"end of file", "", {}, KX_IO_FAILURE},
      {"cut header", success.bytes().substr(0, 9), {}, KX_IO_FAILURE},
      {"lying length", lying.bytes(), {}, KX_IO_FAILURE},
      {"oversized", std::string(100000, 'K'), {}, KX_IO_FAILURE},
      {"a request", request.bytes(), {}, KX_IO_FAILURE},
      {"unknown status", unknown.bytes(), {}, KX_IO_FAILURE},
  };
  const int before = harness::open_descriptors();
  for (const std::size_t size : {10u, 100000u}) {
    for (const auto& item : kCases) {
      SCOPED_TRACE(item.what);
      const RawSocket listener = RawSocket::listening();
      std::thread thread([&] {
        const RawSocket caller = listener.accept();
        caller.receive();
        if (!item.bytes.empty()) {
          caller.send(item.bytes, item.descriptors);
        }
      });
      std::string reply;
      EXPECT_EQ(bus_call("m", std::string(size, 'q'), &reply), item.status);
      thread.join();
    }
  }
  EXPECT_EQ(harness::open_descriptors(), before);
}

// It may also answer before it was asked, and hang up: the answer counts, or its absence.
TEST(HostileServer, EarlyAnswersAndHangUpsAreTakenAsTheyAre) {
  const std::string refusal = Frame{.kind = 2, .detail = KX_IS_REJECT, .method = ""}.bytes();
  for (const std::string& early : {refusal, std::string()}) {
    const RawSocket listener = RawSocket::listening();
    std::thread thread([&] {
      const RawSocket caller = listener.accept();
      shutdown(caller.get(), SHUT_RD);
      caller.receive();
      if (!early.empty()) {
        caller.send(early);
      }
    });
    EXPECT_EQ(bus_call("m", ""), early.empty() ? KX_IO_FAILURE : KX_IS_REJECT);
    thread.join();
  }
}

// The request was executed, so "busy", which may be tried again, would be the wrong word for it.
// The limit stays far above the few places needed: where a process has no privileges, it bounds
// what all processes of its user have under way, too.
TEST(HostileServer, AReplyWhoseDescriptorFindsNoPlaceHasFailed) {
  const int body = harness::make_memfd(std::string(70000, 'b'), kAllSeals);
  const RawSocket listener = RawSocket::listening();
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  const rlimit bounded{std::min<rlim_t>(usual.rlim_cur, 4096), usual.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &bounded), 0);
  std::thread thread([&] {
    std::vector<int> taken;
    const RawSocket caller = listener.accept();
    caller.receive();
    for (int next = dup(body); next >= 0; next = dup(body)) {
      taken.push_back(next);
    }
    EXPECT_EQ(errno, EMFILE);
    EXPECT_TRUE(caller.send(
        Frame{.kind = 2, .detail = 0, .flags = 1, .body_length = 70000, .method = ""}.bytes(),
        {body}));
    caller.receive();  // "" once the caller has its answer and has gone
    for (const int descriptor : taken) {
      close(descriptor);
    }
  });
  EXPECT_EQ(bus_call("m", "q"), KX_IO_FAILURE);
  thread.join();
  setrlimit(RLIMIT_NOFILE, &usual);
  close(body);
}

}  // namespace
