#include "zorvd_value_format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>

#include "harness/test_root.h"

namespace {

TEST(ValueFormat, Bytes) {
  struct Case {
    long long bytes;
    const char* text;
  };
  for (const Case& c : {
           Case{0, " "},
           Case{500, "0.49 KB"},
           Case{1024, "1.00 KB"},
           Case{1048576, "1024.00 KB"},
           Case{1048577, "1.00 MB"},
           Case{1LL << 30, "1024.00 MB"},
           Case{(1LL << 30) + 1, "1.00 GB"},
           Case{LLONG_MAX, "8.00 EB"},
           Case{-1, "-0.00 KB"},
       }) {
    std::string text = "earlier";
    bytesToStr(c.bytes, text);
    EXPECT_EQ(text, c.text) << c.bytes;
  }
}

TEST(ValueFormat, Seconds) {
  struct Case {
    long long seconds;
    const char* text;
  };
  for (const Case& c : {Case{0, "00:00"}, Case{11, "00:11"}, Case{65, "01:05"}, Case{3599, "59:59"},
                        Case{3600, "1:00:00"}, Case{3725, "1:02:05"}, Case{360000, "100:00:00"}}) {
    std::string text;
    secondsToStr(c.seconds, text);
    EXPECT_EQ(text, c.text) << c.seconds;
  }
}

TEST(ValueFormat, TimestampFollowsTheRegionalSettings) {
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(timestamp(0), "");
  EXPECT_EQ(timestamp(1795234206), "2026-11-21 04:10:06");
  EXPECT_EQ(timestamp(2209032000LL), "2040-01-01 12:00:00");  // beyond 32 bits
  harness::write_file("/etc/config/regional.conf", "date_format = 5\ntime_format = 12\n");
  EXPECT_EQ(timestamp(1795234206), "21.11.2026 04:10:06 AM");
}

}  // namespace
