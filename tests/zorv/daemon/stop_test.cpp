// Ends and interruptions: SIGTERM while a request is in hand, a timer that interrupts both sides
// every millisecond, and what the daemon's children get from it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/faults.h"
#include "harness/records.h"
#include "harness/test_root.h"
#include "kx_transport.h"
#include "kxbus.h"
#include "zorv_api_db.h"

namespace {

using harness::Frame;
using harness::RawSocket;

Frame full_list() {
  db_query_cond cond{};
  cond.count = -1;
  Frame frame;
  frame.method = "db_conn_server_log_query";
  frame.body = harness::bytes_of(cond);
  return frame;
}

int small_call() {
  return harness::bus_call("zorv_mobile_gen_zorv_uuid", "", nullptr, 20, -1, kZorvdAddress);
}

void fill(int rows) {
  harness::sql("DELETE FROM conn_server_log");
  harness::insert_rows("conn_server_log", rows, "username", "'user' || i");
}

// The 520 MB of a full log are read while the daemon is told to stop.
TEST(Stop, TheRequestInHandIsAnsweredWholeAndTheOthersAreTold) {
  harness::Daemon daemon;
  fill(100'000);
  std::string reply;
  int status = -1;
  std::thread reader([&] {
    const Frame frame = full_list();
    status = harness::bus_call(frame.method, frame.body, &reply, 60, -1, kZorvdAddress);
  });
  EXPECT_TRUE(harness::eventually([] { return harness::log_holds("SELECT_STMT"); }));
  // These wait in the backlog while the list is read.
  std::vector<RawSocket> waiting;
  for (int i = 0; i < 20; ++i) {
    waiting.push_back(RawSocket::connected(kZorvdAddress));
    waiting.back().send(full_list().bytes());
  }
  daemon.process().send(SIGTERM);
  EXPECT_EQ(daemon.process().wait(), 0);
  reader.join();
  EXPECT_EQ(status, KX_SUCCESS);
  EXPECT_EQ(reply.size(), kQueryHeaderSize + 100'000 * sizeof(db_conn_server_log));
  for (const RawSocket& each : waiting) {
    EXPECT_EQ(each.status(), KX_IS_PAUSED);
  }
  EXPECT_EQ(small_call(), KX_NOT_READY);
  EXPECT_TRUE(harness::log_holds("Stopped "));
}

// A reply in a memfd is the receiver's, whatever has become of its sender.
TEST(Stop, AReplyOutlivesTheDaemon) {
  harness::Daemon daemon;
  fill(1000);
  const RawSocket patient = RawSocket::connected(kZorvdAddress);
  ASSERT_TRUE(patient.send(full_list().bytes()));
  EXPECT_EQ(small_call(), KX_SUCCESS) << "requests are served in their order";
  EXPECT_EQ(daemon.stop(), 0);

  kxbus::Incoming incoming;
  std::vector<char> space(kxbus::kLargestPayload);
  ASSERT_EQ(kxbus::receive_packet(patient.get(), space, kxbus::Wait::no, incoming),
            kxbus::Receipt::packet);
  struct stat about {};
  ASSERT_EQ(fstat(incoming.descriptors[0].get(), &about), 0);
  EXPECT_EQ(about.st_size,
            static_cast<off_t>(kQueryHeaderSize + 1000 * sizeof(db_conn_server_log)));
}

TEST(Stop, SignalsInARowStopOnce) {
  harness::Daemon daemon;
  for (int i = 0; i < 50; ++i) {
    daemon.process().send(i % 3 == 0 ? SIGHUP : i % 3 == 1 ? SIGINT : SIGTERM);
  }
  EXPECT_EQ(daemon.process().wait(), 0);
}

// Every call that can be interrupted is, on both sides, and nobody notices.
TEST(Interrupted, BothSidesWorkOn) {
  const harness::Faults faults;
  harness::WrappedDaemon daemon(faults.preload(true));
  fill(2000);
  struct sigaction action {};
  action.sa_handler = [](int) {};  // without SA_RESTART
  ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
  const itimerval interval{{0, 1000}, {0, 1000}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &interval, nullptr), 0);

  const Frame list = full_list();
  const std::string large = list.body + std::string(1 << 20, 'x');
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(small_call(), KX_SUCCESS);
    std::string reply;
    EXPECT_EQ(harness::bus_call(list.method, large, &reply, 20, -1, kZorvdAddress), KX_SUCCESS);
    EXPECT_EQ(reply.size(),
              kQueryHeaderSize + static_cast<size_t>(2000 + i) * sizeof(db_conn_server_log));
    db_conn_server_log record{};
    EXPECT_EQ(add_conn_server_log(&record), KX_SUCCESS);
  }
  const itimerval never{};
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_EQ(daemon.stop(), 0);
}

// Stands where the notification tool is and writes down what it got with its start.
constexpr const char* kRecorder = R"(#!/bin/sh
grep -E 'SigBlk|SigIgn' /proc/self/status > "$ZORV_ROOT/signals"
ls -l /proc/$$/fd > "$ZORV_ROOT/descriptors.part"
mv "$ZORV_ROOT/descriptors.part" "$ZORV_ROOT/descriptors"
)";

TEST(Children, StartWithACleanMaskAndNoDescriptorOfTheDaemon) {
  harness::write_file("/usr/local/sbin/notify", kRecorder);
  ASSERT_EQ(chmod((harness::test_root() + "/usr/local/sbin/notify").c_str(), 0755), 0);
  harness::Daemon daemon;
  // The request brings a body in a memfd and a descriptor that is passed along.
  db_conn_server_log record{};
  record.vpn_type = 4;
  record.action = 2;
  const std::string body = harness::bytes_of(record) + std::string(100'000, 0);
  EXPECT_EQ(harness::bus_call("db_conn_insert", body, nullptr, 20, STDERR_FILENO, kZorvdAddress),
            KX_SUCCESS);
  std::string open;
  EXPECT_TRUE(harness::eventually([&open] {
    open = harness::read_file("/descriptors");
    return !open.empty();
  }));
  for (const char* of_the_daemon :
       {"zorv.db", "socket:", "eventpoll", "eventfd", "memfd", ".lck"}) {
    EXPECT_EQ(open.find(of_the_daemon), std::string::npos) << open;
  }
  const std::string signals = harness::read_file("/signals");
  EXPECT_NE(signals.find("SigBlk:\t0000000000000000"), std::string::npos) << signals;
  EXPECT_NE(signals.find("SigIgn:\t0000000000000000"), std::string::npos) << signals;
  EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
