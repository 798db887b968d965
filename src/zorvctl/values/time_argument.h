// Times as an administrator types them, after systemd.time(7), and as they are shown. A time is one
// of
//
//   2026-11-21                       that day from 00:00 on
//   "2026-11-21 04:10"               also with seconds, and with T between the two
//   04:10, 04:10:06                  today
//   today, yesterday, tomorrow       that day from 00:00 on; a time may stand behind it
//   Mon, Monday                      the last one, which may be today; a date or a time may follow
//   now
//   2h, 7d, -1h, "1h 30min ago"      that long before now
//   +2h, "2h left"                   that long after now
//   @1795234206, @1795234206.5       seconds since the epoch
//
// Behind a calendar time may stand its zone: Z, UTC, +02:00, CET, Europe/Berlin. Parts of a second
// are dropped.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "time_zone.h"

namespace zorvctl {

// All seconds that a time names: a whole day of a date, a minute of 04:10.
struct TimeSpan {
  unsigned long long first;
  unsigned long long last;
};

// Both return 0, or -1 for a text not understood or a moment out of range, *ret untouched. A span's
// first second is the time.
int parse_time_span(std::string_view text, time_t now, Zone zone, TimeSpan* ret);
int parse_time(std::string_view text, time_t now, Zone zone, unsigned long long* ret);

std::tm calendar_of(time_t seconds, Zone zone);

// "2026-11-21 04:10:06", in UTC with "Z" behind it; "-" for 0, which stands for no time; what lies
// beyond the calendar as "@" and the number.
std::string time_text(unsigned long long seconds, Zone zone);
// "11-21 04:10" within half a year of `now`, else "2025-11-21".
std::string short_time_text(unsigned long long seconds, Zone zone, time_t now);
// As ISO 8601 has it, "2026-11-21T04:10:06+01:00"; "" for 0.
std::string iso_time_text(unsigned long long seconds, Zone zone);

}  // namespace zorvctl
