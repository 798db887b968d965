#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>

#include "harness/test_root.h"
#include "regional_format.h"
#include "rooted.h"

namespace {

class RegionalFormat : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC0", 1);
    tzset();
  }
  void TearDown() override { unlink(os::rooted(nas::kRegionalFile).c_str()); }
};

std::string date(time_t when, int index) {
  char text[64] = {};
  return nas::format_date(when, index, text, sizeof text) == 0 ? text : "failed";
}

std::string time_of_day(time_t when) {
  char text[64] = {};
  return nas::format_time(when, text, sizeof text) == 0 ? text : "failed";
}

TEST_F(RegionalFormat, EveryFormat) {
  constexpr const char* kExpected[] = {"2026-03-09", "2026/03/09", "2026.03.09",
                                       "09-03-2026", "09/03/2026", "09.03.2026",
                                       "03-09-2026", "03/09/2026", "03.09.2026"};
  static_assert(std::size(kExpected) == nas::kDateFormats.size());
  constexpr time_t kWhen = 1773014400;
  for (size_t i = 0; i < std::size(kExpected); ++i) {
    EXPECT_EQ(date(kWhen, static_cast<int>(i)), kExpected[i]);
  }
  for (const int unknown : {-1, 9}) {
    EXPECT_EQ(date(kWhen, unknown), kExpected[0]) << unknown;
  }
  setenv("TZ", "IST-5:30", 1);
  tzset();
  EXPECT_EQ(date(kWhen - 19800, 0), kExpected[0]) << "local time is shown";
  EXPECT_EQ(date(kWhen - 19801, 0), "2026-03-08");
}

TEST_F(RegionalFormat, TimesOfAllAges) {
  constexpr struct {
    int64_t when;
    const char* date;
    const char* hours24;
    const char* hours12;
  } kCases[] = {
      {0, "1970-01-01", "00:00:00", "12:00:00 AM"},
      {-1, "1969-12-31", "23:59:59", "11:59:59 PM"},
      {43200, "1970-01-01", "12:00:00", "12:00:00 PM"},
      {2147483648, "2038-01-19", "03:14:08", "03:14:08 AM"},
      {253402300800, "10000-01-01", "00:00:00", "12:00:00 AM"},
      {std::numeric_limits<int64_t>::max(), "failed", "failed", "failed"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(date(c.when, 0), c.date) << c.when;
    harness::write_file(nas::kRegionalFile, "time_format = 24\n");
    EXPECT_EQ(time_of_day(c.when), c.hours24) << c.when;
    harness::write_file(nas::kRegionalFile, "time_format = 12\n");
    EXPECT_EQ(time_of_day(c.when), c.hours12) << c.when;
  }
}

TEST_F(RegionalFormat, SettingsFile) {
  constexpr const char* kIso = "0 15:00:00";
  const std::string huge = "date_format = 5\n" + std::string(5000, '#');
  const struct {
    std::string content;
    const char* expected;
  } cases[] = {
      {"date_format = 5\ntime_format = 12\n", "5 03:00:00 PM"},
      {"  date_format=8\r\n\ttime_format =12\r", "8 03:00:00 PM"},
      {"# date_format = 3\n\nother = 1\ndate_format = 4", "4 15:00:00"},
      {"date_format = 2\ndate_format = 7\n", "7 15:00:00"},
      {"", kIso},
      {"date_format = 9\ntime_format = 13\n", kIso},
      {"date_format = -1\ntime_format = 1 2\n", kIso},
      {"date_format = 99999999999999999999\ntime_format =\n", kIso},
      {std::string("date_format") + '\0' + " = 5\n\xFF\xFE", kIso},
      {huge, kIso},
  };
  constexpr time_t kAfternoon = 54000;
  const auto shown = [] {
    return std::to_string(nas::current_date_format()) + " " + time_of_day(kAfternoon);
  };
  EXPECT_EQ(shown(), kIso);
  for (const auto& c : cases) {
    harness::write_file(nas::kRegionalFile, c.content);
    EXPECT_EQ(shown(), c.expected) << c.content.substr(0, 80);
  }
  const std::string path = os::rooted(nas::kRegionalFile);
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(shown(), kIso) << "no file";
}

TEST_F(RegionalFormat, BufferTooSmallIsLeftAlone) {
  char text[16] = "untouched";
  for (const size_t size : {0U, 1U, 10U}) {
    EXPECT_EQ(nas::format_date(0, 0, text, size), -1);
    EXPECT_EQ(nas::format_time(0, text, size < 9 ? size : 8), -1);
    EXPECT_STREQ(text, "untouched");
  }
  EXPECT_EQ(nas::format_date(0, 0, text, 11), 0);
  EXPECT_STREQ(text, "1970-01-01");
  EXPECT_EQ(nas::format_time(0, text, 9), 0);
  EXPECT_STREQ(text, "00:00:00");
}

}  // namespace
