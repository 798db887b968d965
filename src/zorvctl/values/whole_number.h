// Numbers in decimal: all of the text, nothing in front of it or behind, within the type's limits.
#pragma once

#include <charconv>
#include <string_view>

namespace zorvctl {

// False for any other text, *ret untouched.
template <class Number>
bool whole_number(std::string_view text, Number* ret) {
  Number number = 0;
  const char* const end = text.data() + text.size();
  const auto [read_to, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || read_to != end) {
    return false;
  }
  *ret = number;
  return true;
}

}  // namespace zorvctl
