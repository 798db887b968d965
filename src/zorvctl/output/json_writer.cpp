#include <fmt/format.h>

#include "display_text.h"
#include "record_writer.h"
#include "value_text.h"

namespace zorvctl {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

class JsonWriter : public RecordWriter {
 public:
  JsonWriter(Columns columns, std::string* out) : columns_(columns), out_(out) {}

  void add(const void* record) override {
    const char* separator = "{";
    for (const Column& column : columns_) {
      const Value value = column.get(record);
      *out_ += fmt::format("{}\"{}\": ", separator, column.name);
      if (const auto* text = std::get_if<std::string_view>(&value)) {
        *out_ += json_string(*text);
      } else {
        *out_ += number_digits(value);
      }
      separator = ", ";
    }
    *out_ += columns_.empty() ? "{}\n" : "}\n";
  }

 private:
  Columns columns_;
  std::string* out_;
};

}  // namespace

std::string json_string(std::string_view text) {
  std::string result = "\"";
  while (!text.empty()) {
    const Character character = first_character(text);
    const char32_t code = character.valid ? character.code : kReplacement;
    if (code == '"' || code == '\\') {
      result += '\\';
      result += static_cast<char>(code);
    } else if (code == '\n') {
      result += "\\n";
    } else if (code == '\t') {
      result += "\\t";
    } else if (code == '\r') {
      result += "\\r";
    } else if (is_control(code) || !character.valid) {
      result += fmt::format("\\u{:04x}", static_cast<unsigned>(code));
    } else {
      result += text.substr(0, character.length);
    }
    text.remove_prefix(character.length);
  }
  return result + '"';
}

std::unique_ptr<RecordWriter> make_json_writer(Columns columns, std::string* out) {
  return std::make_unique<JsonWriter>(columns, out);
}

}  // namespace zorvctl
