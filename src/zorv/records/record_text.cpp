#include "record_text.h"

#include "utf8.h"

namespace zorv {

std::string record_text(std::string_view text, size_t longest) {
  std::string result;
  std::string_view rest = text.substr(0, bytes_looked_at(longest));
  while (!rest.empty()) {
    const Character character = first_character(rest);
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

}  // namespace zorv
