#include "record_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

#include "digest.h"
#include "utf8.h"

namespace ship {
namespace {

constexpr char32_t kStrayBytes = 0x10FE00;

bool is_stray_byte(char32_t code) {
  return code >= kStrayBytes + 0x80 && code <= kStrayBytes + 0xFF;
}

void append_stray_byte(char byte, std::string* ret_text) {
  const char32_t code = kStrayBytes + static_cast<unsigned char>(byte);
  for (const unsigned shift : {18U, 12U, 6U, 0U}) {
    const char32_t lead = shift == 18 ? 0xF0 : 0x80;
    ret_text->push_back(static_cast<char>(lead | ((code >> shift) & (shift == 18 ? 0x07 : 0x3F))));
  }
}

void append_plain(char byte, std::string* ret_text) {
  switch (byte) {
    case '\\':
      *ret_text += "\\\\";
      break;
    case '\t':
      *ret_text += "\\t";
      break;
    case '\n':
      *ret_text += "\\n";
      break;
    case '\r':
      *ret_text += "\\r";
      break;
    default:
      ret_text->push_back(byte);
  }
}

void append_text(std::string_view text, std::string* ret_text) {
  while (!text.empty()) {
    const zorv::Character character = zorv::first_character(text);
    const std::string_view bytes = text.substr(0, character.length);
    if (!character.valid || is_stray_byte(character.code)) {
      for (const char byte : bytes) {
        append_stray_byte(byte, ret_text);
      }
    } else if (bytes.size() == 1) {
      append_plain(bytes[0], ret_text);
    } else {
      *ret_text += bytes;
    }
    text.remove_prefix(bytes.size());
  }
}

}  // namespace

std::string number_text(const zorv::FieldValue& value) {
  if (const auto* number = std::get_if<record_int64>(&value)) {
    return fmt::to_string(*number);
  }
  constexpr record_uint64 kMost = std::numeric_limits<record_int64>::max();
  return fmt::to_string(std::min(std::get<record_uint64>(value), kMost));
}

void append_copy_line(const zorv::TableSchema& table, const void* record, std::string* ret_text) {
  for (const zorv::Field& field : table.fields) {
    const zorv::FieldValue value = get(field, record);
    if (const auto* text = std::get_if<std::string_view>(&value)) {
      append_text(*text, ret_text);
    } else {
      *ret_text += number_text(value);
    }
    ret_text->push_back('\t');
  }
  ret_text->back() = '\n';
}

std::string digest_of(const zorv::TableSchema& table, const void* record) {
  constexpr std::string_view kEnd("\0", 1);
  Digest digest;
  for (const zorv::Field& field : table.fields) {
    const zorv::FieldValue value = get(field, record);
    const auto* text = std::get_if<std::string_view>(&value);
    digest.add(text != nullptr ? *text : number_text(value)).add(kEnd);
  }
  return digest.text();
}

}  // namespace ship
