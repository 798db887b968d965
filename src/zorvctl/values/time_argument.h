// Times as an administrator types them, and as tables show them. A time is one of
//
//   2026-11-21                       00:00 of that day, in the zone asked for
//   "2026-11-21 04:10"               also with seconds, and with T between the two
//   2026-11-21T04:10:06Z             in the zone that it names: Z, +02:00 or -0530
//   04:10, 04:10:06                  today
//   now, today, yesterday, tomorrow  the last three at 00:00
//   2h, 7d, 1h30m, "2h ago"          that long before now
//   +2h                              that long after now
//   @1795234206                      seconds since the epoch
#pragma once

#include <ctime>
#include <string>
#include <string_view>

namespace zorvctl {

enum class Zone { local, utc };

// Returns 0, or -1 for a text it does not understand or a moment out of range, *ret untouched.
int parse_time(std::string_view text, time_t now, Zone zone, unsigned long long* ret);

std::tm calendar_of(time_t seconds, Zone zone);

// "2026-11-21 04:10:06", in UTC with "Z" behind it; "-" for 0, which stands for no time; what lies
// beyond the calendar as "@" and the number.
std::string time_text(unsigned long long seconds, Zone zone);

}  // namespace zorvctl
