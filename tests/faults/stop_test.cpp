// Ends and interruptions of the daemon: SIGTERM while a request is in hand, a timer that interrupts
// both sides every millisecond, and what the daemon's children get from it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <thread>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/faults.h"
#include "harness/records.h"
#include "harness/test_root.h"
#include "kxbus.h"
#include "zorv_api_db.h"

namespace {

int call(const std::string& method, const std::string& body = "",
         std::string* ret_reply = nullptr) {
  return harness::bus_call(method, body, ret_reply, 60, -1, kZorvdAddress);
}

std::string everything() {
  db_query_cond cond{};
  cond.count = -1;
  return harness::bytes_of(cond);
}

// A list of 52 MB is read while signals come in a row; others wait in the backlog meanwhile.
TEST(Stop, TheRequestInHandIsAnsweredWholeAndTheOthersAreTold) {
  harness::Daemon daemon;
  harness::insert_rows("conn_server_log", 10'000, "username", "'user' || i");
  std::string reply;
  int status = -1;
  std::thread reader([&] { status = call("db_conn_server_log_query", everything(), &reply); });
  EXPECT_TRUE(harness::eventually([] { return harness::log_holds("SELECT_STMT"); }));
  const harness::RawSocket waiting = harness::RawSocket::connected(kZorvdAddress);
  for (int i = 0; i < 50; ++i) {
    daemon.process().send(i % 3 == 0 ? SIGHUP : i % 3 == 1 ? SIGINT : SIGTERM);
  }
  EXPECT_EQ(daemon.process().wait(), 0);
  reader.join();
  EXPECT_EQ(status, KX_SUCCESS);
  EXPECT_EQ(reply.size(), kQueryHeaderSize + 10'000 * sizeof(db_conn_server_log));
  EXPECT_EQ(waiting.status(), KX_IS_PAUSED);
  EXPECT_EQ(call("zorv_mobile_gen_zorv_uuid"), KX_NOT_READY);
  EXPECT_TRUE(harness::log_holds("Stopped "));
}

// Every call that can be interrupted is, on both sides, and nobody notices.
TEST(Interrupted, BothSidesWorkOn) {
  const harness::Faults faults;
  harness::WrappedDaemon daemon(faults.preload(true));
  harness::insert_rows("conn_server_log", 2000, "username", "'user' || i");
  struct sigaction action {};
  action.sa_handler = [](int) {};  // without SA_RESTART
  ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
  const itimerval interval{{0, 1000}, {0, 1000}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &interval, nullptr), 0);
  for (size_t i = 0; i < 20; ++i) {
    EXPECT_EQ(call("zorv_mobile_gen_zorv_uuid"), KX_SUCCESS);
    std::string reply;
    EXPECT_EQ(call("db_conn_server_log_query", everything() + std::string(1 << 20, 'x'), &reply),
              KX_SUCCESS);
    EXPECT_EQ(reply.size(), kQueryHeaderSize + (2000 + i) * sizeof(db_conn_server_log));
    db_conn_server_log record{};
    EXPECT_EQ(add_conn_server_log(&record), KX_SUCCESS);
  }
  const itimerval never{};
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_EQ(daemon.stop(), 0);
}

// Stands where the notification tool is and writes down its own signals and descriptors: signals
// first, because shells change them, and without a redirection, which would be a descriptor.
constexpr const char* kRecorder = R"(#!/bin/sh
while read -r name value; do
  case $name in SigBlk: | SigIgn:) echo "$value" ;; esac
done < /proc/self/status > "$ZORV_ROOT/signals"
find /proc/$$/fd -type l ! -lname "$0" -fprintf "$ZORV_ROOT/descriptors.part" '%l\n'
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
  EXPECT_TRUE(harness::eventually([] { return !harness::read_file("/descriptors").empty(); }));
  EXPECT_EQ(harness::read_file("/descriptors"), "/dev/null\n/dev/null\n/dev/null\n");
  EXPECT_EQ(harness::read_file("/signals"), "0000000000000000\n0000000000000000\n");
  EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
