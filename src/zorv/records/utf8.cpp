#include "utf8.h"

namespace zorv {
namespace {

constexpr Character kStray{0, 1, false};

unsigned byte_at(std::string_view text, size_t index) {
  return static_cast<unsigned char>(text[index]);
}

}  // namespace

Character first_character(std::string_view text) {
  const unsigned lead = byte_at(text, 0);
  if (lead < 0x80) {
    return {lead, 1, true};
  }
  unsigned length = 0;
  char32_t code = 0;
  char32_t smallest = 0;
  if ((lead & 0xE0) == 0xC0) {
    length = 2;
    code = lead & 0x1F;
    smallest = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3;
    code = lead & 0x0F;
    smallest = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4;
    code = lead & 0x07;
    smallest = 0x10000;
  } else {
    return kStray;
  }
  if (text.size() < length) {
    return kStray;
  }
  for (unsigned index = 1; index < length; ++index) {
    const unsigned next = byte_at(text, index);
    if ((next & 0xC0) != 0x80) {
      return kStray;
    }
    code = (code << 6) | (next & 0x3F);
  }
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (code < smallest || code > 0x10FFFF || surrogate) {
    return kStray;
  }
  return {code, length, true};
}

}  // namespace zorv
