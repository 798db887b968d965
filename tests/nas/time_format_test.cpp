// What a record's time, bytes and seconds look like in a notification, whatever the year.
#include <gtest/gtest.h>

#include <climits>

#include "harness/test_root.h"
#include "regional_format.h"
#include "zorvd_value_format.h"

namespace {

TEST(TimeFormat, FollowsTheSettingsFile) {
  constexpr long long kWhen = 140400;
  constexpr const char* kDefault = "1970-01-02 20:30:00";
  const std::pair<std::string, const char*> cases[] = {
      {"date_format = 2\n", "1970.01.02 20:30:00"},
      {"# date_format = 3\n\nother = 1\ndate_format = 4", "02/01/1970 20:30:00"},
      {"date_format = 5\ntime_format = 12\n", "02.01.1970 08:30:00 PM"},
      {"date_format = 2\ntime_format = 12\ndate_format = 7\ntime_format = 24",
       "01/02/1970 20:30:00"},
      {"  date_format=8\r\n\ttime_format =12\r", "01.02.1970 08:30:00 PM"},
      {"date_format = 1\ndate_format = 9\ntime_format = 12\ntime_format = 12 2\n", kDefault},
      {"date_format = 1\ndate_format = -1\ntime_format = 12\ntime_format =\n", kDefault},
      {"date_format = 1\ndate_format = x\ntime_format: 12\n", kDefault},
      {"date_format = 5\n" + std::string(4080, '#'), "02.01.1970 20:30:00"},
      {"date_format = 5\n" + std::string(4081, '#'), kDefault},
  };
  setenv("TZ", "IST-5:30", 1);
  for (const auto& [content, expected] : cases) {
    harness::write_file(nas::kRegionalFile, content);
    EXPECT_EQ(timestamp(kWhen), expected) << content.substr(0, 80);
  }
}

TEST(TimeFormat, ShowsTimesBytesAndSecondsOfAllSizes) {
  setenv("TZ", "IST-5:30", 1);
  harness::write_file(nas::kRegionalFile, "time_format = 12\n");
  for (const auto& [when, expected] : {std::pair{0LL, ""},  // never
                                       {-1LL, "1970-01-01 05:29:59 AM"},
                                       {23400LL, "1970-01-01 12:00:00 PM"},
                                       {66600LL, "1970-01-02 12:00:00 AM"},
                                       {253402300800LL, "10000-01-01 05:30:00 AM"},
                                       {LLONG_MAX, " "}}) {
    EXPECT_EQ(timestamp(when), expected);
  }
  std::string text = "earlier";
  for (const auto& [bytes, expected] : {std::pair{0LL, " "},
                                        {1048576LL, "1024.00 KB"},
                                        {1048577LL, "1.00 MB"},
                                        {LLONG_MAX, "8.00 EB"}}) {
    bytesToStr(bytes, text);
    EXPECT_EQ(text, expected);
  }
  for (const auto& [seconds, expected] :
       {std::pair{69, "01:09"}, {3599, "59:59"}, {3600, "1:00:00"}, {360070, "100:01:10"}}) {
    secondsToStr(seconds, text);
    EXPECT_EQ(text, expected);
  }
}

}  // namespace
