#include "display_text.h"
#include "record_writer.h"
#include "value_text.h"

namespace zorvctl {
namespace {

class CsvWriter : public RecordWriter {
 public:
  CsvWriter(Columns columns, bool terminal, std::string* out)
      : columns_(columns), terminal_(terminal), out_(out) {}

  void heading() {
    for (const Column& column : columns_) {
      put(column.name, &column == &columns_.front());
    }
    *out_ += "\r\n";
  }

  void add(const void* record) override {
    for (const Column& column : columns_) {
      const Value value = column.get(record);
      const bool first = &column == &columns_.front();
      if (const auto* text = std::get_if<std::string_view>(&value)) {
        put(terminal_ ? display_text(*text) : *text, first);
      } else {
        put(number_digits(value), first);
      }
    }
    *out_ += "\r\n";
  }

 private:
  void put(std::string_view field, bool first) {
    if (!first) {
      *out_ += ',';
    }
    if (field.find_first_of(",\"\r\n") == std::string_view::npos) {
      *out_ += field;
      return;
    }
    *out_ += '"';
    for (const char c : field) {
      if (c == '"') {
        *out_ += '"';
      }
      *out_ += c;
    }
    *out_ += '"';
  }

  Columns columns_;
  bool terminal_;
  std::string* out_;
};

}  // namespace

std::unique_ptr<RecordWriter> make_csv_writer(Columns columns, const Style& style,
                                              std::string* out) {
  auto writer = std::make_unique<CsvWriter>(columns, style.terminal, out);
  if (style.heading && !columns.empty()) {
    writer->heading();
  }
  return writer;
}

}  // namespace zorvctl
