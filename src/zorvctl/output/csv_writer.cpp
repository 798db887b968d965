// RFC 4180: a line of names, fields quoted where they need it, lines ended with CR LF. A text that
// a spreadsheet would take for a formula has an apostrophe in front.
#include "display_text.h"
#include "record_writer.h"
#include "value_text.h"

namespace zorvctl {
namespace {

class CsvWriter : public RecordWriter {
 public:
  CsvWriter(const Shown& shown, std::string* out)
      : fields_(chosen_fields(shown)), style_(shown.style), out_(out) {
    if (!style_.heading || fields_.empty()) {
      return;
    }
    for (const zorv::Field* field : fields_) {
      put(field->name, field == fields_.front());
    }
    *out_ += "\r\n";
  }

  void add(const void* record) override {
    for (const zorv::Field* field : fields_) {
      put(cell(*field, get(*field, record)), field == fields_.front());
    }
    *out_ += "\r\n";
  }

 private:
  std::string cell(const zorv::Field& field, const FieldValue& value) const {
    const auto* text = std::get_if<std::string_view>(&value);
    if (text == nullptr) {
      return style_.readable ? shown_value(field, value, style_.zone, Form::iso)
                             : number_digits(value);
    }
    constexpr std::string_view kFormula = "=+-@\t\r";
    const bool is_formula =
        !text->empty() && kFormula.find(text->front()) != std::string_view::npos;
    return (is_formula ? "'" : "") + (style_.terminal ? display_text(*text) : std::string(*text));
  }

  void put(std::string_view text, bool first) {
    if (!first) {
      *out_ += ',';
    }
    if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
      *out_ += text;
      return;
    }
    *out_ += '"';
    for (const char c : text) {
      if (c == '"') {
        *out_ += '"';
      }
      *out_ += c;
    }
    *out_ += '"';
  }

  std::vector<const zorv::Field*> fields_;
  Style style_;
  std::string* out_;
};

}  // namespace

extern const Format kCsvFormat = {"csv", "", make_writer_of<CsvWriter>};

}  // namespace zorvctl
