// Signals as callbacks of the serving loop, and every way of stopping.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "harness/bus_peer.h"
#include "kxbus.h"

namespace {

using harness::bus_call;
using harness::Frame;
using harness::RawSocket;

kx_server* server = nullptr;
std::atomic<int> delivered{0};

void stop_on_signal(int number) {
  delivered += number;
  kx_stop(server);
}

void count_signal(int number) {
  delivered += number;
}

TEST(Signal, OnesThatCameEarlyAreDeliveredAtTheStart) {
  ASSERT_EQ(kx_signal(SIGUSR1, count_signal), KX_SUCCESS);
  ASSERT_EQ(kx_signal(SIGTERM, stop_on_signal), KX_SUCCESS);
  server = kx_create(harness::kBusAddress, 4, 1, harness::bus_callback);
  ASSERT_NE(server, nullptr);
  raise(SIGUSR1);
  raise(SIGTERM);
  EXPECT_EQ(delivered, 0);
  EXPECT_EQ(kx_start(server), KX_SUCCESS);
  EXPECT_EQ(delivered, SIGUSR1 + SIGTERM);
  EXPECT_EQ(kx_start(server), KX_IS_PAUSED);
  kx_free(server);
}

TEST(Signal, StopsTheServerFromAnyDirection) {
  const struct {
    const char* what;
    void (*stop)();
  } kCases[] = {
      {"another thread", [] { kx_stop(server); }},
      {"a signal's callback", [] { kill(getpid(), SIGTERM); }},
      {"a method's callback", [] { EXPECT_EQ(bus_call("stop", ""), KX_SUCCESS); }},
  };
  ASSERT_EQ(kx_signal(SIGTERM, stop_on_signal), KX_SUCCESS);
  const int before = harness::open_descriptors();
  for (int round = 0; round < 20; ++round) {
    for (const auto& item : kCases) {
      SCOPED_TRACE(item.what);
      server = kx_create(harness::kBusAddress, 4, 1, [](const char* method, kx_io* io, int) {
        if (std::string(method) == "stop") {
          kx_stop(server);
        }
        kx_reply(io);
      });
      ASSERT_NE(server, nullptr);
      int status = -1;
      std::thread thread([&status] { status = kx_start(server); });
      EXPECT_EQ(bus_call("echo", ""), KX_SUCCESS);
      item.stop();
      thread.join();
      EXPECT_EQ(status, KX_SUCCESS);
      EXPECT_EQ(bus_call("echo", ""), KX_NOT_READY);
      kx_free(server);
    }
  }
  EXPECT_EQ(harness::open_descriptors(), before);
}

// Some are connected and silent, some are in the backlog with or without a request, one asks for
// the stop, and some come later: all have an answer.
TEST(Signal, AStoppingServerTellsEverybody) {
  server = kx_create(harness::kBusAddress, 4, 1, [](const char*, kx_io* io, int) {
    kx_stop(server);
    kx_reply(io);
  });
  ASSERT_NE(server, nullptr);
  const int before = harness::open_descriptors();
  {
    std::vector<RawSocket> clients;
    constexpr std::size_t kAsksToStop = 10;
    for (std::size_t i = 0; i < 40; ++i) {
      clients.push_back(RawSocket::connected());
      ASSERT_GE(clients.back().get(), 0);
      if (i == kAsksToStop) {
        ASSERT_TRUE(clients.back().send(Frame{}.bytes()));
      } else if (i > kAsksToStop && i % 2 == 0) {
        ASSERT_TRUE(clients.back().send(Frame{}.bytes(), {STDERR_FILENO}));
      }
    }
    EXPECT_EQ(kx_start(server), KX_SUCCESS);
    for (std::size_t i = 0; i < clients.size(); ++i) {
      EXPECT_EQ(clients[i].status(), i == kAsksToStop ? KX_SUCCESS : KX_IS_PAUSED) << i;
    }
  }
  EXPECT_EQ(bus_call("echo", ""), KX_NOT_READY);
  EXPECT_EQ(harness::open_descriptors(), before - 1) << "the spare one is gone, nothing else";
  kx_free(server);
}

TEST(Signal, OfACallbackThatRunsWaitForItsEnd) {
  ASSERT_EQ(kx_signal(SIGTERM, stop_on_signal), KX_SUCCESS);
  delivered = 0;
  server = kx_create(harness::kBusAddress, 4, 1, [](const char*, kx_io* io, int) {
    kill(getpid(), SIGTERM);
    kx_io_realloc(io, 0);
    const std::string row(5200, 'r');
    for (int i = 0; i < 4000; ++i) {
      kx_io_write(io, row.data(), row.size());
    }
    kx_io_write(io, delivered == 0 ? "whole" : "early", 5);
    kx_reply(io);
  });
  ASSERT_NE(server, nullptr);
  std::thread thread([] { kx_start(server); });
  std::string reply;
  EXPECT_EQ(bus_call("m", "", &reply), KX_SUCCESS);
  EXPECT_EQ(reply.size(), 4000u * 5200 + 5);
  EXPECT_EQ(reply.substr(reply.size() - 5), "whole");
  thread.join();
  EXPECT_EQ(delivered, SIGTERM);
  kx_free(server);
}

TEST(Signal, LeavesTheMaskAloneAndGivesTheDefaultBack) {
  EXPECT_EQ(kx_signal(0, count_signal), KX_IS_INVALID);
  EXPECT_EQ(kx_signal(SIGKILL, count_signal), KX_IS_INVALID);
  EXPECT_EQ(kx_signal(4711, count_signal), KX_IS_INVALID);
  ASSERT_EQ(kx_signal(SIGHUP, count_signal), KX_SUCCESS);
  sigset_t blocked;
  sigemptyset(&blocked);
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &blocked), 0);
  for (int number = 1; number < SIGRTMIN; ++number) {
    EXPECT_EQ(sigismember(&blocked, number), 0) << number;
  }
  struct sigaction action {};
  sigaction(SIGHUP, nullptr, &action);
  EXPECT_NE(action.sa_flags & SA_RESTART, 0);
  ASSERT_EQ(kx_signal(SIGHUP, nullptr), KX_SUCCESS);
  sigaction(SIGHUP, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_DFL);
}

}  // namespace
