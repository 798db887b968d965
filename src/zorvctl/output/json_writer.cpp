// One object a record and line, every field under its name, integers as they are stored, null
// where there is no value. Text that is no UTF-8 has U+FFFD for each stray byte.
#include <fmt/format.h>

#include "display_text.h"
#include "record_writer.h"
#include "value_text.h"

namespace zorvctl {
namespace {

class JsonWriter : public RecordWriter {
 public:
  JsonWriter(const Shown& shown, std::string* out) : fields_(shown.fields), out_(out) {}

  void add(const void* record) override {
    std::string members;
    for (const zorv::Field& field : fields_) {
      const FieldValue value = get(field, record);
      const auto* text = std::get_if<std::string_view>(&value);
      members +=
          fmt::format("{}\"{}\": {}", members.empty() ? "" : ", ", field.name,
                      text != nullptr                                 ? json_string(*text)
                      : std::holds_alternative<std::monostate>(value) ? "null"
                                                                      : number_digits(value));
    }
    *out_ += "{" + members + "}\n";
  }

 private:
  std::span<const zorv::Field> fields_;
  std::string* out_;
};

}  // namespace

extern const Format kJsonFormat = {"json", "one object a line", make_writer_of<JsonWriter>};

}  // namespace zorvctl
