// A machine with little memory: this program and the daemon it starts have 512 MB of address space
// each, less than a client needs for the largest page.
#include <gtest/gtest.h>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/records.h"
#include "zorv_api_db.h"

namespace {

constexpr int kRows = 100000;
constexpr int kPatient = 120;  // seconds, for an emulated machine

size_t reply_length(const char* method, record_int64 count) {
  db_query_cond cond{};
  cond.count = count;
  std::string reply;
  harness::bus_call(method, harness::bytes_of(cond), &reply, kPatient, -1, kZorvdAddress);
  return reply.size();
}

TEST(SmallMemory, APageThatDoesNotFitIsRefusedAndTheDaemonServesOn) {
  harness::Process daemon({harness::program("zorvd_small")});
  ASSERT_TRUE(harness::wait_until_serving(kZorvdAddress));
  harness::insert_rows("conn_server_log", kRows, "username, vpn_type, action", "'user' || i, 4, 2");
  harness::insert_rows("privilege_user_block", kRows, "username, limit_count, timestamp",
                       "'user' || i, 1, 1795234206");

  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(harness::list(list_conn_server_log).answered);
    EXPECT_TRUE(daemon.running());
    EXPECT_EQ(reply_length("db_conn_server_log_query", 1000),
              kQueryHeaderSize + 1000 * sizeof(db_conn_server_log));
  }
  // All users with failed logins do fit.
  EXPECT_EQ(reply_length("db_privilege_user_block_query", -1),
            kQueryHeaderSize + kRows * sizeof(db_privilege_user_block_data));
  EXPECT_EQ(daemon.terminate(), 0);
}

}  // namespace
