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

// The text with a "?" for each character beyond ASCII, for a terminal that has no others.
std::string ascii_text(std::string_view text);

// Whether the user's locale, and so the terminal, has UTF-8.
bool is_utf8_locale();

// From now on widths and regular expressions know characters as UTF-8 has them, whatever the user's
// locale is. False where the system cannot.
bool use_utf8_characters();

// How many columns of a terminal the text takes. For text that display_text gave.
unsigned display_width(std::string_view text);

// The longest front of `text` that takes at most so many columns and ends between two characters.
std::string_view front_of_columns(std::string_view text, size_t columns);

}  // namespace zorvctl
