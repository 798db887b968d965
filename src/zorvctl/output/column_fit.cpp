#include "column_fit.h"

#include <algorithm>

namespace zorvctl {
namespace {

constexpr unsigned kReadable = 16;  // of a text

unsigned total_of(const std::vector<std::optional<unsigned>>& widths) {
  unsigned total = 0;
  unsigned gap = 0;
  for (const auto& width : widths) {
    total += width ? *width + gap : 0;
    gap = width ? kColumnGap : gap;
  }
  return total;
}

class Fitting {
 public:
  Fitting(const std::vector<ColumnNeed>& needs, unsigned columns)
      : needs_(needs), columns_(columns), left_out_(needs.size()) {}

  ColumnFit run() {
    while (true) {
      for (const bool compact : {false, true}) {
        if (fits(compact, kReadable)) {
          return fit_;
        }
      }
      if (fits(true, 0) || !leave_one_out()) {
        return fit_;
      }
    }
  }

 private:
  // Takes what the terminal lacks from the widest text, down to `least`.
  bool fits(bool compact, unsigned least) {
    fit_ = {compact, {}};
    std::vector<unsigned> limits;
    for (size_t index = 0; index < needs_.size(); ++index) {
      const ColumnNeed& need = needs_[index];
      const unsigned width = compact ? need.compact : need.full;
      fit_.widths.push_back(left_out_[index] ? std::nullopt : std::optional(width));
      const bool is_cutable = need.narrowest < need.compact;
      limits.push_back(is_cutable ? std::min(std::max(least, need.narrowest), width) : width);
    }
    while (total_of(fit_.widths) > columns_) {
      size_t widest = needs_.size();
      for (size_t index = 0; index < needs_.size(); ++index) {
        const auto& width = fit_.widths[index];
        if (width > limits[index] && (widest == needs_.size() || width > fit_.widths[widest])) {
          widest = index;
        }
      }
      if (widest == needs_.size()) {
        return false;
      }
      --*fit_.widths[widest];
    }
    return true;
  }

  bool leave_one_out() {
    size_t chosen = needs_.size();
    for (size_t index = 0; index < needs_.size(); ++index) {
      const int spare = left_out_[index] ? 0 : needs_[index].spare;
      if (spare > (chosen == needs_.size() ? 0 : needs_[chosen].spare)) {
        chosen = index;
      }
    }
    if (chosen == needs_.size()) {
      return false;
    }
    left_out_[chosen] = true;
    return true;
  }

  const std::vector<ColumnNeed>& needs_;
  unsigned columns_;
  std::vector<bool> left_out_;
  ColumnFit fit_;
};

}  // namespace

ColumnFit fit_columns(const std::vector<ColumnNeed>& needs, unsigned columns) {
  return Fitting(needs, columns).run();
}

}  // namespace zorvctl
