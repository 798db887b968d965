// An object a record, every field under its name. Text that is no UTF-8 has U+FFFD for each stray
// byte. null where there is no value. json has a line each and integers as they are stored;
// json-pretty a line a field, codes by name and times as ISO 8601 has them, or null for none.
#include <fmt/format.h>

#include "display_text.h"
#include "record_writer.h"
#include "value_text.h"

namespace zorvctl {
namespace {

std::string stored(const zorv::Field& /*field*/, const FieldValue& value, Zone /*zone*/) {
  if (const auto* text = std::get_if<std::string_view>(&value)) {
    return json_string(*text);
  }
  return std::holds_alternative<std::monostate>(value) ? "null" : number_digits(value);
}

std::string readable(const zorv::Field& field, const FieldValue& value, Zone zone) {
  if (field.meaning == Meaning::time && std::holds_alternative<record_uint64>(value)) {
    const std::string time = iso_time_text(std::get<record_uint64>(value), zone);
    return time.empty() ? "null" : json_string(time);
  }
  const auto* code = std::get_if<record_int64>(&value);
  const bool is_known_code = field.meaning == Meaning::code && code != nullptr &&
                             zorv::word_of(field.words, *code) != nullptr;
  return is_known_code ? json_string(shown_value(field, value, zone)) : stored(field, value, zone);
}

struct Layout {
  const char* begin;
  const char* between;
  const char* end;
  std::string (*value_text)(const zorv::Field& field, const FieldValue& value, Zone zone);
};
constexpr Layout kLine = {"{", ", ", "}\n", stored};
constexpr Layout kPretty = {"{\n    ", ",\n    ", "\n}\n", readable};

template <const Layout& layout>
class JsonWriter : public RecordWriter {
 public:
  JsonWriter(const Shown& shown, std::string* out)
      : fields_(chosen_fields(shown)), zone_(shown.style.zone), out_(out) {}

  void add(const void* record) override {
    std::string members;
    for (const zorv::Field* field : fields_) {
      members += fmt::format("{}\"{}\": {}", members.empty() ? "" : layout.between, field->name,
                             layout.value_text(*field, get(*field, record), zone_));
    }
    *out_ += layout.begin + members + layout.end;
  }

 private:
  std::vector<const zorv::Field*> fields_;
  Zone zone_;
  std::string* out_;
};

}  // namespace

extern const Format kJsonFormat = {"json", "one object a line", make_writer_of<JsonWriter<kLine>>};
extern const Format kPrettyFormat = {"json-pretty", "with words and times",
                                     make_writer_of<JsonWriter<kPretty>>};

}  // namespace zorvctl
