// January 2038 and after, with a clock that stands where the test puts it; and files that outgrow
// 32 bits.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>

#include "harness/daemon.h"
#include "harness/fake_service.h"
#include "harness/records.h"
#include "harness/test_root.h"
#include "logger.h"
#include "zorvd_db_handler.h"
#include "zorvd_db_privilege_user_block_handler.h"

namespace {

time_t clock_now;

}  // namespace

// In place of the C library's, for everything that this program links.
extern "C" time_t time(time_t* ret_now) noexcept {
  if (ret_now != nullptr) {
    *ret_now = clock_now;
  }
  return clock_now;
}

namespace {

constexpr time_t kLastSecond = 2147483647;  // that 31 bits hold

TEST(WideTime, ABlockIsCountedRightWhateverTheYear) {
  const harness::FakeService policy("vpncaas", "read_json",
                                    R"({"error": 0, "data": {"global": {"enable": true, "limit": 2,
                                       "time": 5}}})");
  ASSERT_EQ(store::create_privilege_user_block_db(), 0);
  for (const time_t start : {kLastSecond - 60, kLastSecond, kLastSecond + 1, time_t{2209032000}}) {
    clock_now = start;
    store::insert_privilege_user_block("mallory");
    store::insert_privilege_user_block("mallory");
    EXPECT_EQ(harness::sql("SELECT limit_count, timestamp FROM privilege_user_block"),
              (std::vector<std::string>{"2|" + std::to_string(start)}));
    EXPECT_EQ(store::check_privilege_user_block("mallory"), 1) << start;
    clock_now = start + 299;
    EXPECT_EQ(store::check_privilege_user_block("mallory"), 1) << start;
    clock_now = start + 300;
    EXPECT_EQ(store::check_privilege_user_block("mallory"), 0) << start;
    EXPECT_TRUE(harness::sql("SELECT * FROM privilege_user_block").empty()) << start;
  }
  store::finish_privilege_user_block_db();
}

TEST(WideTime, RecordsNotificationsAndTheLogBearTheirDates) {
  setenv("TZ", "UTC", 1);
  tzset();
  harness::install_notify();
  ASSERT_EQ(store::create_conn_server_log_db(), 0);
  const std::pair<time_t, std::string> moments[] = {
      {kLastSecond, "2038-01-19 03:14:07"},
      {kLastSecond + 1, "2038-01-19 03:14:08"},
      {2214043200, "2040-02-28 12:00:00"},
      {2214129600, "2040-02-29 12:00:00"},
  };
  size_t sent = 0;
  for (const auto& [when, text] : moments) {
    clock_now = when;
    db_conn_server_log record{};
    record.vpn_type = 4;
    record.action = 2;
    record.time = static_cast<record_uint64>(when);
    EXPECT_EQ(store::insert_conn_server_log(&record), 0);
    EXPECT_NE(harness::notifications(++sent).back().find("Date: " + text + ","), std::string::npos);
    EXPECT_TRUE(harness::log_holds(text + " "));
    EXPECT_EQ(harness::sql("SELECT max(time) FROM conn_server_log"),
              (std::vector<std::string>{std::to_string(when)}));

    db_query_cond newest = harness::newest_row();
    db_conn_server_log_query query{};
    db_conn_server_log_query* result = &query;
    ASSERT_EQ(store::select_conn_server_log(&newest, &result), 0);
    ASSERT_EQ(query.count, 1U);
    EXPECT_EQ(query.data[0].time, static_cast<record_uint64>(when));
    free(query.data);
  }
  store::finish_conn_server_log_db();
}

TEST(WideTime, TheLogGrowsBeyondTwoGigabytes) {
  static_assert(sizeof(off_t) == 8);
  const std::string path = harness::test_root() + "/var/log/network/large.log";
  const off_t size = off_t{3} << 30;
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, size), 0);  // a hole, which takes no space
  snprintf(__log_file__, sizeof __log_file__, "/var/log/network/large.log");
  clock_now = 2209032000;
  store::insert_privilege_user_block("");
  char text[4] = {};
  EXPECT_EQ(pread(fd, text, 4, size), 4);
  EXPECT_EQ(std::string(text, 4), "2040");
  close(fd);
}

}  // namespace
