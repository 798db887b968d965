// Durations as an administrator types them, and as tables show them.
#pragma once

#include <string>
#include <string_view>

namespace zorvctl {

// A number of seconds, or numbers with systemd's units behind them: "1h30m", "1h 30min", "1.5
// days". A part of a second is dropped. Returns 0, or -1 for a text it does not understand,
// *ret_seconds untouched.
int parse_duration(std::string_view text, unsigned long long* ret_seconds);

// "11 s", "3 min 05 s", "1 h 02 min", "5 d 03 h".
std::string duration_text(unsigned long long seconds);
// "11s", "3m05s", "1h02m", "5d03h".
std::string short_duration_text(unsigned long long seconds);

}  // namespace zorvctl
