#include <algorithm>
#include <numeric>
#include <utility>
#include <vector>

#include "display_text.h"
#include "record_writer.h"
#include "value_text.h"

namespace zorvctl {
namespace {

constexpr std::string_view kGap = "  ";
constexpr std::string_view kCut = "\xE2\x80\xA6";  // an ellipsis, one column wide
constexpr unsigned kNarrowest = 8;                 // a text is cut to no less

bool is_amount(Meaning meaning) {
  return meaning == Meaning::number || meaning == Meaning::bytes || meaning == Meaning::seconds;
}

class TableWriter : public RecordWriter {
 public:
  TableWriter(const Shown& shown, std::string* out) : style_(shown.style), out_(out) {
    for (const zorv::Field& field : shown.fields) {
      if (field.heading != nullptr) {
        shown_.push_back(&field);
        add_heading(field.heading, is_amount(field.meaning), field.is_text());
      }
    }
  }

  void add(const void* record) override {
    std::vector<std::string> row;
    row.reserve(layout_.size());
    for (const zorv::Field* field : shown_) {
      row.push_back(shown_value(*field, get(*field, record), style_.zone));
    }
    for (size_t index = 0; index < row.size(); ++index) {
      layout_[index].width = std::max(layout_[index].width, display_width(row[index]));
    }
    rows_.push_back(std::move(row));
  }

  void end_page() override {
    if (layout_.empty()) {
      return;
    }
    fit_terminal();
    if (style_.heading && !heading_put_) {
      heading_put_ = true;
      put_row(headings_);
    }
    for (const auto& row : rows_) {
      put_row(row);
    }
    rows_.clear();
  }

 private:
  struct Layout {
    unsigned width;
    bool right;    // aligned
    bool cutable;  // when the terminal is too narrow
  };

  void add_heading(const std::string& heading, bool right, bool cutable) {
    layout_.push_back({style_.heading ? display_width(heading) : 0, right, cutable});
    headings_.push_back(heading);
  }

  // Takes what the terminal lacks from the widest texts.
  void fit_terminal() {
    if (!style_.terminal || style_.columns == 0) {
      return;
    }
    while (true) {
      const auto total =
          std::accumulate(layout_.begin(), layout_.end(), (layout_.size() - 1) * kGap.size(),
                          [](size_t sum, const Layout& layout) { return sum + layout.width; });
      Layout* widest = nullptr;
      for (Layout& layout : layout_) {
        if (layout.cutable && (widest == nullptr || layout.width > widest->width)) {
          widest = &layout;
        }
      }
      if (total <= style_.columns || widest == nullptr || widest->width <= kNarrowest) {
        return;
      }
      --widest->width;
    }
  }

  void put_row(const std::vector<std::string>& row) {
    std::string line;
    for (size_t index = 0; index < row.size(); ++index) {
      const Layout& layout = layout_[index];
      std::string_view text = row[index];
      std::string cut;
      if (display_width(text) > layout.width) {
        cut = front_of_columns(text, layout.width - 1);
        cut += kCut;
        text = cut;
      }
      const std::string blanks(layout.width - std::min(layout.width, display_width(text)), ' ');
      if (index != 0) {
        line += kGap;
      }
      line += layout.right ? blanks : "";
      line += text;
      line += layout.right ? "" : blanks;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    *out_ += line;
    *out_ += '\n';
  }

  std::vector<const zorv::Field*> shown_;
  std::vector<std::string> headings_;
  std::vector<Layout> layout_;
  std::vector<std::vector<std::string>> rows_;
  Style style_;
  std::string* out_;
  bool heading_put_ = false;
};

}  // namespace

extern const Format kTableFormat = {"table", "", make_writer_of<TableWriter>};

}  // namespace zorvctl
