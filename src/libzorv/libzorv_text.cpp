#include "libzorv_text.h"

#include <string_view>

namespace libzorv {
namespace {

using Byte = unsigned char;

constexpr bool is_continuation(char byte) {
  return (static_cast<Byte>(byte) & 0xc0U) == 0x80;
}

// How many bytes the character has that `text` begins with; 1 for what is no UTF-8.
size_t character_length(const char* text) {
  const auto first = static_cast<Byte>(*text);
  size_t length = 1;
  if (first >= 0xc2 && first <= 0xf4) {
    length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  }
  for (size_t i = 1; i < length; ++i) {
    if (!is_continuation(text[i])) {
      return 1;  // the terminator is none, so nothing is read behind it
    }
  }
  return length;
}

bool is_control(std::string_view character) {
  const auto first = static_cast<Byte>(character[0]);
  return first < 0x20 || first == 0x7f ||
         (first == 0xc2 && character.size() == 2 && static_cast<Byte>(character[1]) < 0xa0);
}

}  // namespace

std::string record_text(const char* text, size_t longest) {
  std::string result;
  while (text != nullptr && *text != '\0') {
    const std::string_view character(text, character_length(text));
    const std::string_view written = is_control(character) ? "_" : character;
    if (result.size() + written.size() > longest) {
      break;
    }
    result += written;
    text += character.size();
  }
  return result;
}

}  // namespace libzorv
