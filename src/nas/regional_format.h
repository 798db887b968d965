// Dates and times as the NAS's regional settings want them.
//
// The settings stand in kRegionalFile, lines of "key = value"; '#' begins a comment line, a later
// line wins over an earlier one:
//
//   date_format = 0      an index into kDateFormats
//   time_format = 24     24 or 12
//
// The file is read afresh at each call, so a change shows at once. A missing or unreadable file, an
// unknown key and a value that is not one of the above mean the default: ISO date, 24 hours.
//
// All times are 64-bit, before 1970 and after 2038 alike, and shown in local time. Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <ctime>

namespace nas {

static_assert(sizeof(time_t) == 8, "build with _TIME_BITS=64");

inline constexpr const char* kRegionalFile = "/etc/config/regional.conf";

// Y is the year in at least four digits, M the month and D the day in two; the rest stands as it
// is. The index is stored in users' settings: add at the end, never reorder.
inline constexpr std::array<const char*, 9> kDateFormats = {
    "Y-M-D",  // 0: ISO 8601, the default
    "Y/M/D",  // 1
    "Y.M.D",  // 2
    "D-M-Y",  // 3
    "D/M/Y",  // 4
    "D.M.Y",  // 5
    "M-D-Y",  // 6
    "M/D/Y",  // 7
    "M.D.Y",  // 8
};

// The index that the settings name.
int current_date_format();

// The date of `when` in format `index`; another index means the default. The time of day of `when`,
// "15:04:05" or "03:04:05 PM" as the settings say. Both write a terminated text into `ret_text`
// and return 0, or return -1 and leave it alone when `size` bytes are too few (64 always suffice)
// or the year does not fit the calendar.
int format_date(time_t when, int index, char* ret_text, size_t size);
int format_time(time_t when, char* ret_text, size_t size);

}  // namespace nas
