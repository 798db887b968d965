// Lines of columns for people. On a terminal a row is one line: short forms take the place of the
// full ones, texts are cut and columns left out until it fits, as column_fit.h says.
#include <algorithm>
#include <utility>
#include <vector>

#include "color.h"
#include "column_fit.h"
#include "display_text.h"
#include "record_writer.h"
#include "value_text.h"

namespace zorvctl {
namespace {

constexpr unsigned kNarrowest = 8;  // a text is cut to no less

bool is_amount(Meaning meaning) {
  return meaning == Meaning::number || meaning == Meaning::bytes || meaning == Meaning::seconds;
}

bool is_failure(const zorv::Field& field, const FieldValue& value) {
  return std::any_of(field.words.begin(), field.words.end(), [&](const zorv::CodeWord& word) {
    return word.is_failure && (value == FieldValue(record_int64{word.code}) ||
                               value == FieldValue(std::string_view(word.word)));
  });
}

struct Cell {
  std::string full;
  std::string compact;
  bool is_failure = false;
};

struct Column {
  const zorv::Field* field;
  std::string heading;
  bool right;  // aligned
  ColumnNeed need;
};

template <bool is_wide>
class TableWriter : public RecordWriter {
 public:
  TableWriter(const Shown& shown, std::string* out) : style_(shown.style), out_(out) {
    if (!style_.chosen.empty()) {
      for (const zorv::Field* field : chosen_fields(shown)) {
        add_column(*field);
      }
    } else {
      add_own_columns(shown.fields);
    }
  }

  void add(const void* record) override {
    std::vector<Cell> row;
    row.reserve(columns_.size());
    for (Column& column : columns_) {
      Cell& cell = row.emplace_back(cell_of(column, record));
      ColumnNeed& need = column.need;
      need.full = std::max(need.full, display_width(cell.full));
      need.compact = std::max(need.compact, display_width(cell.compact));
      const bool is_cutable = column.field->meaning == Meaning::text;
      need.narrowest = is_cutable ? std::min(kNarrowest, need.compact) : need.compact;
    }
    rows_.push_back(std::move(row));
  }

  void end_page() override {
    if (columns_.empty()) {
      return;
    }
    ColumnFit fit = fit_of_page();
    const bool same_columns =
        fit.is_compact == fit_.is_compact &&
        std::equal(fit.widths.begin(), fit.widths.end(), fit_.widths.begin(), fit_.widths.end(),
                   [](const auto& one, const auto& other) { return !one == !other; });
    fit_ = std::move(fit);
    if (style_.heading && (!heading_put_ || !same_columns)) {
      heading_put_ = true;
      std::vector<Cell> headings;
      for (const Column& column : columns_) {
        headings.push_back({column.heading, column.heading});
      }
      put_row(headings);
    }
    for (const auto& row : rows_) {
      put_row(row);
    }
    rows_.clear();
  }

 private:
  void add_own_columns(std::span<const zorv::Field> fields) {
    const auto main = main_fields(fields);
    for (const zorv::Field* field : main) {
      add_column(*field);
    }
    for (const zorv::Field& field : fields) {
      if (is_wide && field.heading != nullptr &&
          std::find(main.begin(), main.end(), &field) == main.end()) {
        add_column(field);
      }
    }
  }

  void add_column(const zorv::Field& field) {
    std::string heading = heading_of(field);
    const unsigned width = style_.heading ? display_width(heading) : 0;
    const int spare = style_.chosen.empty() ? field.place.spare : 0;
    columns_.push_back(
        {&field, std::move(heading), is_amount(field.meaning), {width, width, width, spare}});
  }

  Cell cell_of(const Column& column, const void* record) const {
    const FieldValue value = get(*column.field, record);
    const std::string full = shown_on_screen(column, value, Form::full);
    return {full, has_limit() ? shown_on_screen(column, value, Form::compact) : full,
            is_failure(*column.field, value)};
  }

  std::string shown_on_screen(const Column& column, const FieldValue& value, Form form) const {
    const std::string text = shown_value(*column.field, value, style_.zone, form);
    return style_.terminal && !style_.utf8 ? ascii_text(text) : text;
  }

  bool has_limit() const { return !is_wide && style_.terminal && style_.columns != 0; }

  ColumnFit fit_of_page() const {
    std::vector<ColumnNeed> needs;
    ColumnFit fit;
    for (const Column& column : columns_) {
      needs.push_back(column.need);
      fit.widths.emplace_back(column.need.full);
    }
    return has_limit() ? fit_columns(needs, style_.columns) : fit;
  }

  // To at least one column.
  std::string cut(std::string_view text, unsigned width) const {
    const std::string_view mark = style_.utf8 ? "\xE2\x80\xA6" : "~";  // one column wide
    return std::string(front_of_columns(text, width - 1)) += mark;
  }

  void put_row(const std::vector<Cell>& row) {
    std::string line;
    size_t blanks = 0;  // in front of what comes next; none at the end
    for (size_t index = 0; index < row.size(); ++index) {
      if (!fit_.widths[index]) {
        continue;
      }
      const unsigned width = *fit_.widths[index];
      const Cell& cell = row[index];
      std::string text = fit_.is_compact ? cell.compact : cell.full;
      if (display_width(text) > width) {
        text = cut(text, width);
      }
      const size_t missing = width - std::min(width, display_width(text));
      if (!text.empty()) {
        line.append(blanks + (columns_[index].right ? missing : 0), ' ');
        blanks = columns_[index].right ? 0 : missing;
        line += style_.color && cell.is_failure ? colored(text, kRed) : text;
      } else {
        blanks += missing;
      }
      blanks += kColumnGap;
    }
    *out_ += line;
    *out_ += '\n';
  }

  Style style_;
  std::vector<Column> columns_;
  std::vector<std::vector<Cell>> rows_;
  ColumnFit fit_;
  std::string* out_;
  bool heading_put_ = false;
};

}  // namespace

extern const Format kTableFormat = {"table", "", make_writer_of<TableWriter<false>>};
extern const Format kWideFormat = {"wide", "a table of all columns",
                                   make_writer_of<TableWriter<true>>};

}  // namespace zorvctl
