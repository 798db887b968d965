#include <charconv>
#include <string_view>

#include "json.h"
#include "json_ref.h"
#include "json_storage.h"

using json_storage::Array;
using json_storage::as;
using json_storage::Object;

namespace {

constexpr size_t kDumpFlags =
    JSON_COMPACT | JSON_ENSURE_ASCII | JSON_ENCODE_ANY | JSON_REAL_PRECISION(6);
static_assert(kDumpFlags == 0x3260);

// Where the two writers differ: the form of a double, and what stands around a jansson value.
struct StringStyle {
  static std::to_chars_result number(char* first, char* last, double number) {
    return std::to_chars(first, last, number, std::chars_format::general, 6);
  }
  static constexpr std::string_view kJsonQuote = "\"";
};

struct StreamStyle {
  static std::to_chars_result number(char* first, char* last, double number) {
    return std::to_chars(first, last, number, std::chars_format::fixed, 6);
  }
  static constexpr std::string_view kJsonQuote = "";
};

constexpr char kHexDigits[] = "0123456789abcdef";

// The letter of a two-character escape, 'u' for a numeric one, 0 for a byte that passes.
constexpr char escape_letter(unsigned char byte) {
  switch (byte) {
    case '"':
      return '"';
    case '\\':
      return '\\';
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return byte < 0x20 ? 'u' : '\0';
  }
}

void append_escaped(const std::string& text, std::string& out) {
  const char* const data = text.data();
  size_t copied = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(data[i]);
    const char letter = escape_letter(byte);
    if (letter == '\0') {
      continue;
    }
    out.append(data + copied, i - copied);
    copied = i + 1;
    out += '\\';
    out += letter;
    if (letter == 'u') {
      out += "00";
      out += kHexDigits[byte >> 4U];
      out += kHexDigits[byte & 0xFU];
    }
  }
  out.append(data + copied, text.size() - copied);
}

void append_quoted(const std::string& text, std::string& out) {
  out += '"';
  append_escaped(text, out);
  out += '"';
}

template <class Integer>
void append_integer(const void* value, std::string& out) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, as<Integer>(value)).ptr;
  out.append(digits, end);
}

template <class Style>
void append_double(const void* value, std::string& out) {
  char digits[336];  // the largest double has 309 digits before the point
  const auto end = Style::number(digits, digits + sizeof digits, as<double>(value)).ptr;
  out.append(digits, end);
}

template <class Style>
void append_value(const JsonValue& node, std::string& out);

template <class Style>
void append_array(const void* value, std::string& out) {
  out += '[';
  bool first = true;
  for (const JsonValue* const child : as<Array>(value)) {
    if (!first) {
      out += ',';
    }
    first = false;
    append_value<Style>(*child, out);
  }
  out += ']';
}

template <class Style>
void append_object(const void* value, std::string& out) {
  out += '{';
  bool first = true;
  for (const auto& [key, child] : as<Object>(value)) {
    if (!first) {
      out += ',';
    }
    first = false;
    append_quoted(key, out);
    out += ':';
    append_value<Style>(*child, out);
  }
  out += '}';
}

// jansson can fail, on text that is not UTF-8 for example: nothing stands for the value then.
template <class Style>
void append_json(const void* value, std::string& out) {
  const JsonText text = dump_json(static_cast<const json_t*>(value), kDumpFlags);
  out += Style::kJsonQuote;
  out += text_or_empty(text);
  out += Style::kJsonQuote;
}

template <class Style>
void append_value(const JsonValue& node, std::string& out) {
  const void* const value = node.value;
  if (value == nullptr && node.type <= JsonValue::BOOLEAN_TYPE &&
      node.type != JsonValue::JSON_T_TYPE) {
    out += "null";  // no storage, whatever the kind
    return;
  }
  switch (node.type) {
    case JsonValue::NULL_TYPE:
      out += "null";
      return;
    case JsonValue::ARRAY_TYPE:
      return append_array<Style>(value, out);
    case JsonValue::OBJECT_TYPE:
      return append_object<Style>(value, out);
    case JsonValue::INT32_TYPE:
      return append_integer<int>(value, out);
    case JsonValue::UINT32_TYPE:
      return append_integer<unsigned int>(value, out);
    case JsonValue::INT64_TYPE:
      return append_integer<long long>(value, out);
    case JsonValue::UINT64_TYPE:
      return append_integer<unsigned long long>(value, out);
    case JsonValue::DOUBLE_TYPE:
      return append_double<Style>(value, out);
    case JsonValue::STRING_TYPE:
      return append_quoted(as<std::string>(value), out);
    case JsonValue::JSON_T_TYPE:
      return append_json<Style>(value, out);
    case JsonValue::BOOLEAN_TYPE:
      out += as<bool>(value) ? "true" : "false";
      return;
  }
}

}  // namespace

std::string escape_json(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size());
  append_escaped(text, escaped);
  return escaped;
}

void JsonValue::toString(std::string& out) const {
  append_value<StringStyle>(*this, out);
}

void JsonValue::print(FILE* stream) const {
  std::string text;
  append_value<StreamStyle>(*this, text);
  fwrite(text.data(), 1, text.size(), stream);
}
