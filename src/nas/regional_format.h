// Dates and times as the NAS's regional settings want them.
//
// The settings stand in kRegionalFile, lines of "key = value":
//
//   date_format = 0      0 to 8, a format of kDateFormats
//   time_format = 24     24 or 12
//
// A later line wins over an earlier one, other lines are passed over, and a value that is not one
// of the above means the default: ISO date, 24 hours. The file is read afresh at each call, so a
// change shows at once; a missing file is an empty one.
#pragma once

#include <ctime>
#include <string>

namespace nas {

static_assert(sizeof(time_t) == 8, "build with _TIME_BITS=64");

inline constexpr const char* kRegionalFile = "/etc/config/regional.conf";

// Date, blank and time of day of `when` in local time; a blank alone where the year does not fit
// the calendar. Any thread.
std::string date_and_time(time_t when);

}  // namespace nas
