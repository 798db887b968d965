// Times, values and texts as zorvctl reads and shows them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "display_text.h"
#include "duration.h"
#include "time_argument.h"
#include "utf8.h"
#include "value_text.h"
#include "zorv_schema.h"

using namespace zorvctl;
using zorv::kClientLog;
using zorv::kServerList;
using zorv::kServerLog;

namespace {

constexpr time_t kNow = 1795262400;  // 2026-11-21 12:00:00 UTC, a Saturday; 13:00 in Central Europe
constexpr unsigned long long kUntouched = ~0ULL;

class Times : public testing::Test {
 protected:
  Times() {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
  }
};

TEST_F(Times, AreUnderstoodInManyForms) {
  const struct {
    Zone zone;
    const char* text;
    unsigned long long seconds;
  } moments[] = {
      {Zone::utc, "2026-11-21", 1795219200},
      {Zone::utc, "2026-11-21Z", 1795219200},
      {Zone::utc, "2026-11-21 04:10", 1795234200},
      {Zone::utc, "2026-11-21T05:10:06+01:00", 1795234206},
      {Zone::utc, "2026-11-20 23:40:06 -0430", 1795234206},
      {Zone::utc, "9999-12-31T23:59:59+00", 253402300799},
      {Zone::utc, "04:10:06", 1795234206},
      {Zone::utc, "now", kNow},
      {Zone::utc, "today", 1795219200},
      {Zone::utc, "yesterday", 1795132800},
      {Zone::utc, "tomorrow", 1795305600},
      {Zone::utc, "2h", kNow - 7200},
      {Zone::utc, "1 h 30 min ago", kNow - 5400},
      {Zone::utc, "+1w", kNow + 604800},
      {Zone::local, "2026-11-21", 1795215600},
      {Zone::local, "today", 1795215600},
      {Zone::local, "2026-11-21 04:10:06Z", 1795234206},
      {Zone::local, "@0", 0},
      // Summer time begins at 02:00: that day has 23 hours.
      {Zone::local, "2026-03-29 01:30", 1774744200},
      {Zone::local, "2026-03-29 03:30", 1774747800},
      {Zone::local, "2026-07-01", 1782856800},
  };
  for (const auto& moment : moments) {
    unsigned long long seconds = kUntouched;
    EXPECT_EQ(parse_time(moment.text, kNow, moment.zone, &seconds), 0) << moment.text;
    EXPECT_EQ(seconds, moment.seconds) << moment.text;
  }
  unsigned long long seconds = kUntouched;
  std::istringstream wrong_times(
      "|@|@-1|@99999999999999999999|2026|1795234206|2026-02-30|2025-02-29|2026-13-01|2026-00-10|"
      "2026-1-10|2026-11-21 24:00|2026-11-21 04:60|2026-11-21 04:10:60|2026-11-21  4:10|"
      "2026-11-21 04|2026-11-21T|2026-11-21 04:10 nonsense|2026-11-21 04:10+25|04:10+15:00|"
      "1969-12-31|100000000w|2h ahead|Yesterday| ago|+");
  for (std::string wrong; std::getline(wrong_times, wrong, '|');) {
    EXPECT_EQ(parse_time(wrong, kNow, Zone::utc, &seconds), -1) << wrong;
  }
  EXPECT_EQ(seconds, kUntouched);
}

TEST_F(Times, ThatAreShownAreUnderstoodAgain) {
  for (const unsigned long long seconds : {1ULL, 1774744200ULL, 1795234206ULL, 4102444800ULL,
                                           253402300800ULL, 18446744073709551615ULL}) {
    for (const Zone zone : {Zone::local, Zone::utc}) {
      unsigned long long again = 0;
      EXPECT_EQ(parse_time(time_text(seconds, zone), kNow, zone, &again), 0) << seconds;
      EXPECT_EQ(again, seconds);
    }
  }
  EXPECT_EQ(time_text(1795234206, Zone::local), "2026-11-21 05:10:06");
  EXPECT_EQ(time_text(1795234206, Zone::utc), "2026-11-21 04:10:06Z");
  EXPECT_EQ(time_text(0, Zone::utc), "-");
}

TEST(Numbers, AreShownInUnitsThatFit) {
  const std::pair<unsigned long long, const char*> durations[] = {
      {0, "0 s"},           {60, "1 min 00 s"},     {3599, "59 min 59 s"},
      {3720, "1 h 02 min"}, {86399, "23 h 59 min"}, {97200, "1 d 03 h"},
  };
  for (const auto& [seconds, text] : durations) {
    EXPECT_EQ(duration_text(seconds), text);
  }
  unsigned long long read = kUntouched;
  for (const char* wrong : {"", "1x", "m", "1h2", "1h 2", "-1s", "1.5h", "9999999999999999999d"}) {
    EXPECT_EQ(parse_duration(wrong, &read), -1) << wrong;
  }
  EXPECT_EQ(read, kUntouched);
  const std::pair<long long, const char*> sizes[] = {
      {9999, "9999 B"},       {10000, "9.8 KB"}, {1048575, "1.0 MB"},
      {1610612736, "1.5 GB"}, {-5, "-5 B"},      {9223372036854775807, "8.0 EB"},
  };
  for (const auto& [bytes, text] : sizes) {
    EXPECT_EQ(bytes_text(bytes), text);
  }
}

TEST(Texts, AreHarmlessOnATerminal) {
  const struct {
    std::string text;
    const char* shown;
    unsigned width;
  } cases[] = {
      {"\xE6\x9D\xB1\xE4\xBA\xAC", "\xE6\x9D\xB1\xE4\xBA\xAC", 4},  // two wide characters
      {"\xF0\x9F\x94\x92", "\xF0\x9F\x94\x92", 2},
      {"a\nb\tc\rd", "a\\nb\\tc\\rd", 10},
      {std::string("\xC2\x9B") + "31m", "\\u009b31m", 9},  // the one-character escape introducer
      {std::string("\xE2\x80\xAE") + "cod.exe", "\\u202ecod.exe", 13},  // writes backwards
      {"cut\xE2\x82", "cut\\xe2\\x82", 11},              // a character cut in the middle
      {"\xC0\x80", "\\xc0\\x80", 8},                     // an overlong NUL
      {"\xED\xA0\x80", "\\xed\\xa0\\x80", 12},           // half a surrogate pair
      {"\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80", 16},  // beyond Unicode
      {std::string("\0x", 2), "\\x00x", 5},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(display_text(one.text), one.shown);
    EXPECT_EQ(display_width(one.shown), one.width) << one.shown;
  }
  const std::string wide = "a\xE6\x9D\xB1z";
  const size_t columns[] = {0, 1, 1, 4, 5, 5};
  const size_t bytes[] = {0, 1, 1, 1, 4, 5};
  for (size_t most = 0; most < std::size(columns); ++most) {
    EXPECT_EQ(front_of_columns(wide, most), wide.substr(0, columns[most]));
    EXPECT_EQ(zorv::front_of_bytes(wide, most), wide.substr(0, bytes[most]));
  }
}

TEST(Values, AreReadByTheMeaningOfTheirFieldOrNamedInTheError) {
  struct Case {
    const zorv::TableSchema& table;
    const char* field;
    std::string text;
    FieldValue value;
    const char* named = nullptr;  // in the error
  };
  const Case cases[] = {
      {kServerLog, "vpn_type", "l2tp", 2LL},
      {kServerLog, "vpn_type", "-2147483648", -2147483648LL},
      {kServerLog, "action", "Login OK", 2LL},
      {kClientLog, "action", "get-geolocation", 4LL},
      {kServerLog, "uptime", "1h30m", 5400ULL},
      {kServerLog, "uptime", "9223372036854775807", 9223372036854775807ULL},
      {kServerLog, "time", "now", static_cast<unsigned long long>(kNow)},
      {kServerLog, "tx_total", "-9223372036854775808", std::numeric_limits<long long>::min()},
      {kServerLog, "vpn_type", "opnvpn", {}, "'opnvpn'"},
      {kServerLog, "vpn_type", "2147483648", {}, "'2147483648'"},
      {kClientLog, "action", "login-fail", {}, "'login-fail'"},
      {kServerLog, "uptime", "-1", {}, "'-1'"},
      {kServerLog, "uptime", "9223372036854775808", {}, "'9223372036854775808'"},
      {kServerLog, "time", "@9223372036854775808", {}, "'@9223372036854775808'"},
      {kServerLog, "tx_total", "9223372036854775808", {}, "'9223372036854775808'"},
      {kServerLog, "username", std::string(1025, 'n'), {}, "1025 bytes"},
      {kServerList, "device_name", std::string(1024, 'd'), {}, "at most 1023"},
      {kClientLog, "country_code", "CHE", {}, "at most 2"},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.field + (" " + one.text.substr(0, 40)));
    const bool refused = one.named != nullptr;
    FieldValue value = 77LL;
    std::string error;
    const int status =
        read_value(*one.table.find(one.field), one.text, kNow, Zone::utc, &value, &error);
    EXPECT_EQ(status, refused ? -1 : 0);
    EXPECT_EQ(value, refused ? FieldValue(77LL) : one.value);
    if (refused) {
      EXPECT_NE(error.find(one.named), std::string::npos) << error;
      EXPECT_NE(error.find(one.field), std::string::npos) << error;
    }
  }
}

}  // namespace
