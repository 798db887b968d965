#include "libzorv_text.h"

#include <cstring>

#include "utf8.h"

namespace libzorv {

std::string record_text(const char* text, size_t longest) {
  constexpr size_t kLongestCharacter = 4;
  std::string result;
  std::string_view rest(text != nullptr ? text : "",
                        text != nullptr ? strnlen(text, longest + kLongestCharacter) : 0);
  while (!rest.empty()) {
    const zorv::Character character = zorv::first_character(rest);
    const bool is_control = character.valid && (character.code < 0x20 ||
                                                (character.code >= 0x7f && character.code < 0xa0));
    const std::string_view written = is_control ? "_" : rest.substr(0, character.length);
    if (result.size() + written.size() > longest) {
      break;
    }
    result += written;
    rest.remove_prefix(character.length);
  }
  return result;
}

}  // namespace libzorv
