// RFC 4180: a line of names, fields quoted where they need it, lines ended with CR LF.
#include "display_text.h"
#include "record_writer.h"
#include "value_text.h"

namespace zorvctl {
namespace {

class CsvWriter : public RecordWriter {
 public:
  CsvWriter(const Shown& shown, std::string* out)
      : fields_(shown.fields), terminal_(shown.style.terminal), out_(out) {
    if (!shown.style.heading || fields_.empty()) {
      return;
    }
    for (const zorv::Field& field : fields_) {
      put(field.name, &field == &fields_.front());
    }
    *out_ += "\r\n";
  }

  void add(const void* record) override {
    for (const zorv::Field& field : fields_) {
      const FieldValue value = get(field, record);
      const bool first = &field == &fields_.front();
      if (const auto* text = std::get_if<std::string_view>(&value)) {
        put(terminal_ ? display_text(*text) : *text, first);
      } else {
        put(number_digits(value), first);
      }
    }
    *out_ += "\r\n";
  }

 private:
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

  std::span<const zorv::Field> fields_;
  bool terminal_;
  std::string* out_;
};

}  // namespace

extern const Format kCsvFormat = {"csv", "", make_writer_of<CsvWriter>};

}  // namespace zorvctl
