// The form that a text from elsewhere has in the records, whoever brings it: a name has one
// spelling in records, counts and checks, and forges no line of a log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zorv {

// Of a longer text nothing behind so many bytes is looked at.
constexpr size_t bytes_looked_at(size_t longest) {
  constexpr size_t kLongestCharacter = 4;
  return longest + kLongestCharacter;
}

// The front of `text` that fits into `longest` bytes, with '_' for each control character (of ASCII
// or, in UTF-8, U+0080 to U+009F). No character is cut in two; bytes that are no UTF-8 stay.
std::string record_text(std::string_view text, size_t longest);

}  // namespace zorv
