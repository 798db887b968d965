#include "column_fit.h"

#include <algorithm>
#include <utility>

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
    while (!fits_somehow() && leave_one_out()) {
    }
    bring_back();
    return fit_;
  }

 private:
  bool fits_somehow() { return fits(false, kReadable) || fits(true, kReadable) || fits(true, 0); }

  bool is_wide(size_t index) const { return needs_[index].compact >= kReadable; }

  // A wide one that is left out makes room for narrow ones that were left out before it.
  void bring_back() {
    if (order_.empty() || !is_wide(order_.back())) {
      return;
    }
    for (order_.pop_back(); !order_.empty(); order_.pop_back()) {
      ColumnFit before = fit_;
      left_out_[order_.back()] = false;
      if (!fits(false, kReadable) && !fits(true, kReadable)) {
        left_out_[order_.back()] = true;
        fit_ = std::move(before);
        if (!is_wide(order_.back())) {
          return;
        }
      }
    }
  }

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
    order_.push_back(chosen);
    return true;
  }

  const std::vector<ColumnNeed>& needs_;
  unsigned columns_;
  std::vector<bool> left_out_;
  std::vector<size_t> order_;  // in which they were left out
  ColumnFit fit_;
};

}  // namespace

ColumnFit fit_columns(const std::vector<ColumnNeed>& needs, unsigned columns) {
  return Fitting(needs, columns).run();
}

}  // namespace zorvctl
