// The values of fields as words: rendered for tables, and read from the command line.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "time_argument.h"
#include "zorv_schema.h"

namespace zorvctl {

using zorv::Field;
using zorv::FieldValue;
using zorv::Meaning;

enum class Form {
  full,     // "2026-11-21 04:10:06", "1 h 02 min", "15.3 MB"
  compact,  // the shortest that still tells: "11-21 04:10", "1h02m", "15.3M"
  iso,      // full, but for times: as ISO 8601 has them
};

// For people: "-" where there is none, "" in iso; codes by name, times in `zone`, sizes and
// durations with their units, texts safe for a terminal.
std::string shown_value(const Field& field, const FieldValue& value, Zone zone,
                        Form form = Form::full);

// The value that `text` means for this field; what is understood beside plain numbers depends on
// the meaning ("openvpn", "login-ok", "1h30m", "yesterday"). Returns 0, or -1 with the reason,
// naming the text, in *ret_error. A text value is a view of `text`. A number is within what the
// field holds and the database keeps as an integer.
int read_value(const Field& field, std::string_view text, time_t now, Zone zone, FieldValue* ret,
               std::string* ret_error);

// What is searched in a text or a code: the text; the code's word as it is typed, "login-ok", or
// its digits where it has none.
std::string typed_value(const Field& field, const FieldValue& value);
// Whether two words are one for whoever types: "Login OK", "login-ok" and "LOGIN_OK", or where
// `front_only` the first is the front of the second.
bool is_same_typed(std::string_view one, std::string_view other, bool front_only = false);

// The field that people call so, by its heading or by its name in json and csv; or null.
const Field* field_called(std::span<const Field> fields, std::string_view word);
// The heading; of a field without one, its name in a heading's letters.
std::string heading_of(const Field& field);
// As it is typed: "vpn-ip".
std::string typed_name(const Field& field);
// "time, user, ...": as they are typed.
std::string field_names(std::span<const Field> fields);

// Those that are shown where nobody asks for others, in the order of their places; all with a
// heading where none has a place.
std::vector<const Field*> main_fields(std::span<const Field> fields);

// Half a sentence for --help: what read_value understands.
std::string value_hint(const Field& field);

// The digits of a number, whatever its field; none where it has no value.
std::string number_digits(const FieldValue& value);

// Bytes exactly up to 9999, beyond in steps of 1024 with one decimal: "2622 B", "15.3 MB".
std::string bytes_text(long long bytes);
// The same in fewer letters: "2622", "15.3M".
std::string short_bytes_text(long long bytes);

}  // namespace zorvctl
