// Numbers in decimal: all of the text, nothing in front of it or behind, within the type's limits.
#pragma once

#include <charconv>
#include <string_view>

namespace zorvctl {

enum class WholeNumber { read, too_large, none };

// *ret is untouched unless the number was read.
template <class Number>
WholeNumber read_whole_number(std::string_view text, Number* ret) {
  Number number = 0;
  const char* const end = text.data() + text.size();
  const auto [read_to, error] = std::from_chars(text.data(), end, number);
  if (error == std::errc::invalid_argument || read_to != end) {
    return WholeNumber::none;
  }
  if (error != std::errc()) {
    return WholeNumber::too_large;
  }
  *ret = number;
  return WholeNumber::read;
}

// False for any other text, *ret untouched.
template <class Number>
bool whole_number(std::string_view text, Number* ret) {
  return read_whole_number(text, ret) == WholeNumber::read;
}

}  // namespace zorvctl
