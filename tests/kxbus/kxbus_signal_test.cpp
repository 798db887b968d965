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

void count_signal(int number) {
  delivered += number;
}

void stop_on_signal(int number) {
  delivered += number;
  kx_stop(server);
}

// "stop" stops by a call, "signal" by a signal whose callback must wait for the reply's end.
void callback(const char* name, kx_io* io, int /*fd*/) {
  const std::string method = name;
  if (method == "stop") {
    kx_stop(server);
  } else if (method == "signal") {
    kill(getpid(), SIGTERM);
    kx_io_realloc(io, 200'000);
    kx_io_write(io, delivered == 0 ? "whole" : "early", 5);
  }
  kx_reply(io);
}

class Signal : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(kx_signal(SIGTERM, stop_on_signal), KX_SUCCESS);
    server = kx_create(harness::kBusAddress, 4, 1, callback);
    ASSERT_NE(server, nullptr);
  }
  void TearDown() override {
    EXPECT_EQ(kx_start(server), KX_IS_PAUSED);
    EXPECT_EQ(bus_call("echo", ""), KX_NOT_READY);
    kx_free(server);
  }
};

TEST_F(Signal, OnesThatCameEarlyAreDeliveredAtTheStart) {
  ASSERT_EQ(kx_signal(SIGUSR1, count_signal), KX_SUCCESS);
  raise(SIGUSR1);
  raise(SIGTERM);
  EXPECT_EQ(delivered, 0);
  EXPECT_EQ(kx_start(server), KX_SUCCESS);
  EXPECT_EQ(delivered, SIGUSR1 + SIGTERM);
  TearDown();
  SetUp();
  raise(SIGTERM);
  EXPECT_EQ(kx_start(server), KX_SUCCESS);
  EXPECT_EQ(delivered, SIGUSR1 + 2 * SIGTERM) << "none is delivered twice";
}

TEST_F(Signal, StopsTheServerFromAnyDirectionAndAfterTheReply) {
  const int before = harness::open_descriptors();
  for (int round = 0; round < 20; ++round) {
    for (const char* method : {"thread", "stop", "signal"}) {
      SCOPED_TRACE(method);
      delivered = 0;
      int status = -1;
      std::thread thread([&status] { status = kx_start(server); });
      std::string reply;
      EXPECT_EQ(bus_call(method, "", &reply), KX_SUCCESS);
      if (method == std::string("thread")) {
        kx_stop(server);
      } else if (method == std::string("signal")) {
        EXPECT_EQ(reply, std::string(200'000, '\0') + "whole");
      }
      thread.join();
      EXPECT_EQ(status, KX_SUCCESS);
      EXPECT_EQ(delivered, method == std::string("signal") ? SIGTERM : 0);
      TearDown();
      SetUp();
    }
  }
  EXPECT_EQ(harness::open_descriptors(), before);
  kx_stop(server);
  EXPECT_EQ(kx_start(server), KX_SUCCESS) << "a stop that came before";
}

// Some are connected and silent, some are in the backlog with or without a request, one asks for
// the stop, and some come later: all have an answer.
TEST_F(Signal, AStoppingServerTellsEverybody) {
  const int before = harness::open_descriptors();
  {
    std::vector<RawSocket> clients;
    constexpr std::size_t kAsksToStop = 10;
    for (std::size_t i = 0; i < 40; ++i) {
      clients.push_back(RawSocket::connected());
      if (i == kAsksToStop) {
        ASSERT_TRUE(clients.back().send(Frame{.method = "stop"}.bytes()));
      } else if (i > kAsksToStop && i % 2 == 0) {
        ASSERT_TRUE(clients.back().send(Frame{}.bytes(), {STDERR_FILENO}));
      }
    }
    EXPECT_EQ(kx_start(server), KX_SUCCESS);
    for (std::size_t i = 0; i < clients.size(); ++i) {
      EXPECT_EQ(clients[i].status(), i == kAsksToStop ? KX_SUCCESS : KX_IS_PAUSED) << i;
    }
  }
  EXPECT_EQ(harness::open_descriptors(), before - 1) << "the spare one is gone, nothing else";
}

TEST_F(Signal, LeavesTheMaskAloneAndGivesTheDefaultBack) {
  for (const int impossible : {0, SIGKILL, 65, 4711}) {
    EXPECT_EQ(kx_signal(impossible, count_signal), KX_IS_INVALID);
  }
  sigset_t blocked;
  sigemptyset(&blocked);
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &blocked), 0);
  EXPECT_TRUE(sigisemptyset(&blocked));
  struct sigaction action {};
  sigaction(SIGTERM, nullptr, &action);
  EXPECT_NE(action.sa_flags & SA_RESTART, 0);
  ASSERT_EQ(kx_signal(SIGTERM, nullptr), KX_SUCCESS);
  sigaction(SIGTERM, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_DFL);
  kx_stop(server);
  EXPECT_EQ(kx_start(server), KX_SUCCESS);
}

}  // namespace
