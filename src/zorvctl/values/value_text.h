// The values of columns as words: rendered for tables, and read from the command line.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "column.h"
#include "time_argument.h"

namespace zorvctl {

// As a table shows it: codes by name, times in `zone`, sizes and durations with their units, texts
// safe for a terminal.
std::string shown_value(const Column& column, const Value& value, Zone zone);

// The value that `text` means for this column; what is understood beside plain numbers depends on
// the kind ("openvpn", "login-ok", "1h30m", "yesterday"). Returns 0, or -1 with the reason, naming
// the text, in *ret_error. A text value is a view of `text`.
int read_value(const Column& column, std::string_view text, time_t now, Zone zone, Value* ret,
               std::string* ret_error);

// Half a sentence for --help: what read_value understands.
std::string value_hint(const Column& column);

// The digits of a number, whatever its column.
std::string number_digits(const Value& value);

// Bytes exactly up to 9999, beyond in steps of 1024 with one decimal: "2622 B", "15.3 MB".
std::string bytes_text(long long bytes);

}  // namespace zorvctl
