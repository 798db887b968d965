// Text from anywhere, made safe to show: names come from people who log in, so they may hold what
// moves a terminal's cursor, or bytes that are no text at all.
#pragma once

#include <string>
#include <string_view>

namespace zorvctl {

// Moves the cursor, hides or reorders what is around it: never sent to a terminal as it is.
bool is_control(char32_t code);

// The text with control characters and stray bytes written as \n, \t, \x1b, \u202e.
std::string display_text(std::string_view text);

// The text as a JSON string, quotes included: control characters escaped, a stray byte as U+FFFD.
std::string json_string(std::string_view text);

// How many columns of a terminal the text takes. For text that display_text gave.
unsigned display_width(std::string_view text);

// The longest front of `text` that takes at most so many columns and ends between two characters.
std::string_view front_of_columns(std::string_view text, size_t columns);

}  // namespace zorvctl
