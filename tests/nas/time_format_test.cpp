// What a record's time, bytes and seconds look like in a notification, whatever the year.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "harness/test_root.h"
#include "regional_format.h"
#include "rooted.h"
#include "zorvd_value_format.h"

namespace {

class TimeFormat : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "IST-5:30", 1);
    tzset();
  }
};

TEST_F(TimeFormat, EveryDateFormat) {
  constexpr const char* kExpected[] = {"2026-03-09", "2026/03/09", "2026.03.09", "09-03-2026",
                                       "09/03/2026", "09.03.2026", "03-09-2026", "03/09/2026",
                                       "03.09.2026", "2026-03-09"};
  for (int index = 0; index < std::ssize(kExpected); ++index) {
    harness::write_file(nas::kRegionalFile, "date_format = " + std::to_string(index));
    EXPECT_EQ(timestamp(1772994600), kExpected[index] + std::string(" 00:00:00"));
  }
}

TEST_F(TimeFormat, TimesOfAllAges) {
  constexpr struct {
    long long when;
    const char *hours24, *hours12;
  } kCases[] = {
      {0, "", ""},  // never
      {-1, "1970-01-01 05:29:59", "1970-01-01 05:29:59 AM"},
      {23400, "1970-01-01 12:00:00", "1970-01-01 12:00:00 PM"},
      {66600, "1970-01-02 00:00:00", "1970-01-02 12:00:00 AM"},
      {2147483648, "2038-01-19 08:44:08", "2038-01-19 08:44:08 AM"},
      {2214126000, "2040-02-29 16:30:00", "2040-02-29 04:30:00 PM"},
      {253402300800, "10000-01-01 05:30:00", "10000-01-01 05:30:00 AM"},
      {LLONG_MAX, " ", " "},
  };
  for (const auto& c : kCases) {
    unlink(os::rooted(nas::kRegionalFile).c_str());
    EXPECT_EQ(timestamp(c.when), c.hours24);
    harness::write_file(nas::kRegionalFile, "time_format = 12\n");
    EXPECT_EQ(timestamp(c.when), c.hours12);
  }
}

TEST_F(TimeFormat, SettingsFile) {
  constexpr const char* kDefault = "1970-01-02 20:30:00";
  const struct {
    std::string content;
    const char* expected;
  } cases[] = {
      {"date_format = 5\ntime_format = 12\n", "02.01.1970 08:30:00 PM"},
      {"  date_format=8\r\n\ttime_format =12\r", "01.02.1970 08:30:00 PM"},
      {"# date_format = 3\n\nother = 1\ndate_format = 4", "02/01/1970 20:30:00"},
      {"date_format = 2\ntime_format = 12\ndate_format = 7\ntime_format = 24",
       "01/02/1970 20:30:00"},
      {"date_format = 1\ndate_format = -1\ntime_format = 12\ntime_format = 1 2\n", kDefault},
      {"date_format = 99999999999999999999\ntime_format = 12\ntime_format =\n", kDefault},
      {"date_format = 1\ndate_format = x\ntime_format\ntime_format: 12\n", kDefault},
      {std::string("date_format") + '\0' + " = 5\n\xFF\xFE", kDefault},
      {"date_format = 5\n" + std::string(4080, '#'), "02.01.1970 20:30:00"},
      {"date_format = 5\n" + std::string(4081, '#'), kDefault},
  };
  for (const auto& c : cases) {
    harness::write_file(nas::kRegionalFile, c.content);
    EXPECT_EQ(timestamp(140400), c.expected) << c.content.substr(0, 80);
  }
  const std::string path = os::rooted(nas::kRegionalFile);
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(timestamp(140400), kDefault) << "a FIFO is not waited for";
}

TEST_F(TimeFormat, BytesAndSeconds) {
  constexpr std::pair<long long, const char*> kBytes[] = {
      {0, " "},
      {500, "0.49 KB"},
      {1048576, "1024.00 KB"},
      {1048577, "1.00 MB"},
      {(1LL << 30) + 1, "1.00 GB"},
      {LLONG_MAX, "8.00 EB"},
  };
  std::string text = "earlier";
  for (const auto& [bytes, expected] : kBytes) {
    bytesToStr(bytes, text);
    EXPECT_EQ(text, expected);
  }
  constexpr std::pair<long long, const char*> kSeconds[] = {
      {0, "00:00"},      {69, "01:09"},     {70, "01:10"},         {3599, "59:59"},
      {3600, "1:00:00"}, {3725, "1:02:05"}, {360000, "100:00:00"},
  };
  for (const auto& [seconds, expected] : kSeconds) {
    secondsToStr(seconds, text);
    EXPECT_EQ(text, expected);
  }
}

}  // namespace
