// Peers that break the protocol, leave, stay silent or use up what the other side has. Afterwards
// the honest side must answer as before and hold the descriptors it held before.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>
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

// Every answered call means that the server has done with what was sent before it.
void expect_in_order(int descriptors_before) {
  std::string reply;
  EXPECT_EQ(bus_call("echo", "still here", &reply), KX_SUCCESS);
  EXPECT_EQ(reply, "still here");
  EXPECT_EQ(harness::descriptors_held(), descriptors_before);
}

std::vector<int> many_descriptors(int count) {
  std::vector<int> descriptors(static_cast<std::size_t>(count), STDERR_FILENO);
  return descriptors;
}

TEST(HostileClient, FramesAreAnsweredWithAReasonOrNotAtAll) {
  const BusServer server;
  const std::string body(100, 'b');
  const Frame shared{.flags = 1, .body_length = 100};
  const int good = harness::make_memfd(body, kAllSeals);
  const int unsealed = harness::make_memfd(body, 0);
  const int half_sealed = harness::make_memfd(body, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE);
  const int shortened = harness::make_memfd(body.substr(1), kAllSeals);
  const int longer = harness::make_memfd(body + "b", kAllSeals);
  const int plain = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  const struct {
    const char* what;
    std::string bytes;
    std::vector<int> descriptors;
    int status;
  } kCases[] = {
      {"sealed memory", shared.bytes(), {good}, KX_SUCCESS},
      {"unsealed memory", shared.bytes(), {unsealed}, KX_IS_INVALID},
      {"memory that may be unsealed", shared.bytes(), {half_sealed}, KX_IS_INVALID},
      {"memory shorter than said", shared.bytes(), {shortened}, KX_IS_INVALID},
      {"memory longer than said", shared.bytes(), {longer}, KX_IS_INVALID},
      {"a file", shared.bytes(), {plain}, KX_IS_INVALID},
      {"a terminal or pipe", shared.bytes(), {STDERR_FILENO}, KX_IS_INVALID},
      {"no memory", shared.bytes(), {}, KX_IS_INVALID},
      {"two descriptors, one announced", shared.bytes(), {good, good}, KX_IS_INVALID},
      {"two descriptors unannounced", Frame{}.bytes(), {good, good}, KX_IS_INVALID},
      {"253 descriptors", Frame{}.bytes(), many_descriptors(253), KX_IS_INVALID},
      {"253 descriptors and nothing else", "", many_descriptors(253), KX_IS_INVALID},
      {"cut header", Frame{}.bytes().substr(0, 15), {}, KX_IS_INVALID},
      {"one byte", "K", {}, KX_IS_INVALID},
      {"bad magic", Frame{.magic = 1}.bytes(), {}, KX_IS_INVALID},
      {"bad version", Frame{.version = 9}.bytes(), {}, KX_IS_INVALID},
      {"lying length", Frame{.body_length = 1 << 20}.bytes(), {}, KX_IS_INVALID},
      {"oversized", Frame{.body = std::string(66000, 'b')}.bytes(), {}, KX_IS_INVALID},
      {"far oversized", std::string(120000, 'K'), {}, KX_IS_INVALID},
  };
  const int before = harness::descriptors_held();
  for (int round = 0; round < 3; ++round) {
    for (const auto& item : kCases) {
      SCOPED_TRACE(item.what);
      {
        const RawSocket client = RawSocket::connected();
        ASSERT_TRUE(client.send(item.bytes, item.descriptors));
        EXPECT_EQ(client.status(), item.status);
        EXPECT_EQ(client.receive(), "");
      }
      expect_in_order(before);
    }
  }
}

TEST(HostileClient, NoiseNeverGetsAnywhere) {
  const BusServer server;
  const int before = harness::descriptors_held();
  std::mt19937 random(7);
  for (int round = 0; round < 500; ++round) {
    std::string bytes = round % 2 == 0 ? std::string(random() % 300 + 1, '\0') : Frame{}.bytes();
    for (std::size_t i = round % 2 == 0 ? 0 : random() % 16; i < bytes.size();
         i += 1 + random() % 9) {
      bytes[i] = static_cast<char>(random());
    }
    const RawSocket client = RawSocket::connected();
    ASSERT_TRUE(client.send(bytes, many_descriptors(static_cast<int>(random() % 4))));
    ASSERT_NE(client.status(), -2);
  }
  expect_in_order(before);
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

TEST(HostileClient, SecondPacketsAndUnreadRepliesHurtNobody) {
  const BusServer server;
  const int before = harness::descriptors_held();
  for (int round = 0; round < 50; ++round) {
    const RawSocket twice = RawSocket::connected();
    twice.send(Frame{}.bytes());
    twice.send(Frame{}.bytes(), many_descriptors(3));
    const RawSocket empty = RawSocket::connected();
    empty.send("");
    empty.send("", many_descriptors(3));
    const RawSocket unread = RawSocket::connected();
    unread.send(Frame{.body = std::string(65536, 'b')}.bytes());
    const RawSocket large_unread = RawSocket::connected();
    large_unread.send(Frame{.body = "3000000", .method = "grow"}.bytes());
    ASSERT_EQ(bus_call("echo", ""), KX_SUCCESS);
  }
  expect_in_order(before);
}

// More connections than the server keeps say nothing. Honest callers are served all the while,
// those that were too many are told, and all are gone in the end.
TEST(HostileClient, SilentOnesDoNotShutOthersOut) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const BusServer server;
  const int before = harness::descriptors_held();
  const std::size_t kept = geteuid() == 0 ? 256 : 64;
  {
    std::vector<RawSocket> silent;
    for (int i = 0; i < 1000; ++i) {
      silent.push_back(RawSocket::connected());
      ASSERT_GE(silent.back().get(), 0);
      if (i % 100 == 99) {
        ASSERT_EQ(bus_call("echo", ""), KX_SUCCESS);
      }
    }
    for (std::size_t i = 0; i < silent.size() - kept; ++i) {
      ASSERT_EQ(silent[i].status(), KX_IS_BUSY);
    }
    // The last has not been given up: its request, late as it is, is served.
    ASSERT_TRUE(silent.back().send(Frame{}.bytes()));
    EXPECT_EQ(silent.back().status(), KX_SUCCESS);
    // The others hear when their time has passed.
    EXPECT_EQ(silent[silent.size() - 2].status(), KX_IS_BUSY);
  }
  expect_in_order(before);
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
  unknown.detail = 99;
  Frame failed = success;
  failed.detail = KX_IS_PAUSED;
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

}  // namespace
