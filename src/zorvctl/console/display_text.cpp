#include "display_text.h"

#include <fmt/format.h>
#include <langinfo.h>

#include <clocale>
#include <cwchar>

#include "utf8.h"

namespace zorvctl {
namespace {

using zorv::Character;
using zorv::first_character;

unsigned width_of(char32_t code) {
  if (code < 0x80 || !use_utf8_characters()) {
    return 1;
  }
  const int width = wcwidth(static_cast<wchar_t>(code));
  return width < 0 ? 1 : static_cast<unsigned>(width);
}

// How one kind of output writes what is not shown as it is.
struct Escapes {
  std::string_view marked;  // characters that get a backslash
  const char* ascii_control;
  const char* stray_byte;
};

std::string escaped(std::string_view text, const Escapes& escapes) {
  constexpr std::string_view kNamed = "\n\t\r";
  constexpr std::string_view kNames = "ntr";
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const Character character = first_character(text);
    const auto code = static_cast<unsigned>(character.code);
    const char byte = text.front();
    if (!character.valid) {
      result += fmt::format(fmt::runtime(escapes.stray_byte), static_cast<unsigned char>(byte));
    } else if (const size_t named = kNamed.find(byte); named != std::string_view::npos) {
      result += {'\\', kNames[named]};
    } else if (escapes.marked.find(byte) != std::string_view::npos) {
      result += {'\\', byte};
    } else if (is_control(character.code)) {
      result += fmt::format(fmt::runtime(code < 0x80 ? escapes.ascii_control : "\\u{:04x}"), code);
    } else {
      result += text.substr(0, character.length);
    }
    text.remove_prefix(character.length);
  }
  return result;
}

}  // namespace

bool is_control(char32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0) ||        // C0, DEL, C1
         code == 0x2028 || code == 0x2029 ||                    // line and paragraph separators
         code == 0x200E || code == 0x200F || code == 0x061C ||  // direction marks
         (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069) || code == 0xFEFF;
}

std::string display_text(std::string_view text) {
  return escaped(text, {"", "\\x{:02x}", "\\x{:02x}"});
}

std::string json_string(std::string_view text) {
  return '"' + escaped(text, {"\"\\", "\\u{:04x}", "\\ufffd"}) + '"';
}

std::string ascii_text(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const Character character = first_character(text);
    result += character.code < 0x80 ? text.front() : '?';
    text.remove_prefix(character.length);
  }
  return result;
}

bool use_utf8_characters() {
  static const bool utf8 = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
  return utf8;
}

bool is_utf8_locale() {
  const locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
  if (locale == nullptr) {
    return false;
  }
  const bool utf8 = std::string_view(nl_langinfo_l(CODESET, locale)) == "UTF-8";
  freelocale(locale);
  return utf8;
}

unsigned display_width(std::string_view text) {
  unsigned width = 0;
  while (!text.empty()) {
    const Character character = first_character(text);
    width += width_of(character.code);
    text.remove_prefix(character.length);
  }
  return width;
}

std::string_view front_of_columns(std::string_view text, size_t columns) {
  size_t length = 0;
  size_t taken = 0;
  while (length < text.size()) {
    const Character character = first_character(text.substr(length));
    taken += width_of(character.code);
    if (taken > columns) {
      break;
    }
    length += character.length;
  }
  return text.substr(0, length);
}

}  // namespace zorvctl
