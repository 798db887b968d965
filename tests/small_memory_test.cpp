// A machine with little memory: this program and the daemon it starts have 512 MB of address space
// each, less than a client needs for the largest page.
#include <gtest/gtest.h>

#include "harness/daemon.h"
#include "kxbus.h"
#include "zorv_api_db.h"

namespace {

constexpr int kRows = 100000;
constexpr int kPatient = 120;  // seconds, for an emulated machine

// The length of the reply, 0 for a call that failed.
size_t reply_length(const char* method, record_int64 count) {
  db_query_cond cond{};
  cond.count = count;
  kx_io* io = kx_io_create();
  kx_io_write(io, &cond, sizeof cond);
  size_t length = 0;
  if (kx_call(kZorvdAddress, method, io, kPatient, -1) == KX_SUCCESS &&
      kx_io_read(io, &length) == nullptr) {
    length = 0;
  }
  kx_io_free(io);
  return length;
}

void fill(const std::string& table, const std::string& columns, const std::string& values) {
  const std::string numbers =
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
      "WHERE i < " +
      std::to_string(kRows) + ") ";
  ASSERT_TRUE(harness::sql(numbers + "INSERT INTO " + table + " (" + columns + ") SELECT " +
                           values + " FROM n")
                  .empty());
}

TEST(SmallMemory, APageThatDoesNotFitIsRefusedAndTheDaemonServesOn) {
  harness::Process daemon({harness::program("zorvd_small")});
  ASSERT_TRUE(harness::wait_until_serving(kZorvdAddress));
  fill("conn_server_log", "username, vpn_type, action", "'user' || i, 4, 2");
  fill("privilege_user_block", "username, limit_count, timestamp", "'user' || i, 1, 1795234206");

  for (int i = 0; i < 2; ++i) {
    db_query_cond cond{};
    cond.count = -1;
    db_conn_server_log_query query{};
    query.count = 4711;  // stays when the call fails
    db_conn_server_log_query* result = &query;
    list_conn_server_log(&cond, &result);
    EXPECT_EQ(query.count, 4711U);
    EXPECT_EQ(query.data, nullptr);
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
