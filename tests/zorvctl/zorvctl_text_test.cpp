// Times as zorvctl reads and shows them, and texts that are cut.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "display_text.h"
#include "record_text.h"
#include "time_argument.h"

using namespace zorvctl;

namespace {

constexpr time_t kNow = 1795262400;  // 2026-11-21 12:00:00 UTC, a Saturday; 13:00 in Central Europe
constexpr unsigned long long kNone = ~0ULL;

struct Moment {
  const char* text;
  unsigned long long utc;
  unsigned long long local = utc;
};
constexpr Moment kMoments[] = {
    {"2026-11-21", 1795219200, 1795215600},
    {"2026-11-21 04:10", 1795234200, 1795230600},
    {"2026-11-21T05:10:06+01:00", 1795234206},
    {"2026-11-20 23:40:06 -0430", 1795234206},
    {"04:10:06", 1795234206, 1795230606},
    {"yesterday", 1795132800, 1795129200},
    {"1 h 30 min ago", kNow - 5400},
    {"+1w", kNow + 604800},
    {"-1.5h", kNow - 5400},
    {"2months 1day left", kNow + 5346000},
    {"@0", 0},
    {"@1795234206.5", 1795234206},
    {"2026-11-21 04:10:06.5 UTC", 1795234206},
    {"Sat 2026-11-21 04:10 America/New_York", 1795252200},
    {"monday, 10:00", 1794823200, 1794819600},
    {"Sat", 1795219200, 1795215600},
    {"yesterday 10:00 CET", 1795165200},
    // Summer time begins at 02:00: that day has 23 hours.
    {"2026-03-29 01:30", 1774747800, 1774744200},
    {"2026-03-29 02:30", 1774751400, 1774747800},
    {"2026-03-29 03:30", 1774755000, 1774747800},
    {"2026-10-25 02:30", 1792895400, 1792888200},  // the first of two
    {"2026-04-05 America/Santiago", 1775361600},
    {"2026-09-06 America/Santiago", 1788667200},  // midnight does not exist
};
constexpr const char* kWrong =
    "|@|@-1|@99999999999999999999|2026|1795234206|2026-02-30|2026-00-10|2026-1-10|2026-11-21 24:00|"
    "2026-11-21 04:60|2026-11-21 04:10:60|2026-11-21 04|2026-11-21T|2026-11-21 04:10 nonsense|"
    "04:10+15:00|1969-12-31|100000000w|213503982334602d|2h ahead|1h2|1x|m|1.h|.5h| ago|-2h ago|Sun "
    "2026-11-21|today nowhere|@1.|2h Europe/Berlin|Mo|+";

TEST(Times, AreUnderstoodInManyFormsAndAsTheyAreShown) {
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset();
  const auto read = [](std::string_view text, Zone zone) {
    unsigned long long seconds = kNone;
    const int status = parse_time(text, kNow, zone, &seconds);
    EXPECT_EQ(status, seconds == kNone ? -1 : 0) << text;
    return seconds;
  };
  for (const Moment& moment : kMoments) {
    EXPECT_EQ(read(moment.text, Zone::utc), moment.utc) << moment.text;
    EXPECT_EQ(read(moment.text, Zone::local), moment.local) << moment.text;
  }
  std::istringstream wrong_times(kWrong);
  for (std::string wrong; std::getline(wrong_times, wrong, '|');) {
    EXPECT_EQ(read(wrong, Zone::utc), kNone) << wrong;
  }
  for (const auto seconds : {1ULL, 1774744200ULL, 4102444800ULL, 253402300800ULL}) {
    EXPECT_EQ(read(time_text(seconds, Zone::utc), Zone::local), seconds);
    EXPECT_EQ(read(time_text(seconds, Zone::local), Zone::local), seconds);
  }
  EXPECT_EQ(time_text(1795234206, Zone::local), "2026-11-21 05:10:06");
}

TEST(Texts, AreCutBetweenCharacters) {
  const std::string wide = "a\xE6\x9D\xB1z";
  const size_t columns[] = {0, 1, 1, 4, 5, 5};
  const size_t bytes[] = {0, 1, 1, 1, 4, 5};
  for (size_t most = 0; most < std::size(columns); ++most) {
    EXPECT_EQ(front_of_columns(wide, most), wide.substr(0, columns[most]));
    EXPECT_EQ(zorv::record_text(wide, most), wide.substr(0, bytes[most]));
  }
}

}  // namespace
