// Characters of UTF-8 in texts that may be anything.
#pragma once

#include <cstddef>
#include <string_view>

namespace zorv {

// One character, decoded. A byte that is part of no well-formed character is `valid` = false, one
// byte long.
struct Character {
  char32_t code;
  unsigned length;  // bytes
  bool valid;
};

// The first character of `text`, which is not empty.
Character first_character(std::string_view text);

}  // namespace zorv
