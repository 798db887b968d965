// Text from anywhere, made safe to show: names come from people who log in, so they may hold what
// moves a terminal's cursor, or bytes that are no text at all.
#pragma once

#include <string>
#include <string_view>

namespace zorvctl {

// One character, decoded from UTF-8. A byte that is part of no well-formed character is
// `valid` = false, one byte long.
struct Character {
  char32_t code;
  unsigned length;  // bytes
  bool valid;
};

// The first character of `text`, which is not empty.
Character first_character(std::string_view text);

// Moves the cursor, hides or reorders what is around it: never sent to a terminal as it is.
bool is_control(char32_t code);

// The text with control characters and stray bytes written as \n, \t, \x1b, \u202e.
std::string display_text(std::string_view text);

// The text as a JSON string, quotes included: control characters escaped, a stray byte as U+FFFD.
std::string json_string(std::string_view text);

// How many columns of a terminal the text takes. For text that display_text gave.
unsigned display_width(std::string_view text);

// The longest front of `text` that takes at most so many columns, or bytes, and ends between two
// characters.
std::string_view front_of_columns(std::string_view text, size_t columns);
std::string_view front_of_bytes(std::string_view text, size_t bytes);

}  // namespace zorvctl
