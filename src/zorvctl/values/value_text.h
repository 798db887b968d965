// The values of fields as words: rendered for tables, and read from the command line.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "time_argument.h"
#include "zorv_schema.h"

namespace zorvctl {

using zorv::Field;
using zorv::FieldValue;
using zorv::Meaning;

// As a table shows it: "-" where there is none, codes by name, times in `zone`, sizes and durations
// with their units, texts safe for a terminal.
std::string shown_value(const Field& field, const FieldValue& value, Zone zone);

// The value that `text` means for this field; what is understood beside plain numbers depends on
// the meaning ("openvpn", "login-ok", "1h30m", "yesterday"). Returns 0, or -1 with the reason,
// naming the text, in *ret_error. A text value is a view of `text`. A number is within what the
// field holds and the database keeps as an integer.
int read_value(const Field& field, std::string_view text, time_t now, Zone zone, FieldValue* ret,
               std::string* ret_error);

// Half a sentence for --help: what read_value understands.
std::string value_hint(const Field& field);

// The digits of a number, whatever its field; none where it has no value.
std::string number_digits(const FieldValue& value);

// Bytes exactly up to 9999, beyond in steps of 1024 with one decimal: "2622 B", "15.3 MB".
std::string bytes_text(long long bytes);

}  // namespace zorvctl
