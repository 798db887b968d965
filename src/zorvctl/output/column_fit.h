// Which columns of a table a terminal of some width shows, and how wide: a row is one line.
#pragma once

#include <optional>
#include <vector>

namespace zorvctl {

inline constexpr unsigned kColumnGap = 2;

struct ColumnNeed {
  unsigned full;       // as wide as its widest value and its heading
  unsigned compact;    // the same of the short forms; at most `full`
  unsigned narrowest;  // what it can be cut to; `compact` where it may not be cut
  int spare;           // 0: never left out; otherwise the largest goes first
};

struct ColumnFit {
  bool is_compact = false;
  std::vector<std::optional<unsigned>> widths;  // none: left out
};

// What changes a row least comes first: texts cut to a readable length, short forms, texts cut as
// far as they may be, columns left out, of which those that still fit come back. Where that is not
// enough, rows are wider than `columns`.
ColumnFit fit_columns(const std::vector<ColumnNeed>& needs, unsigned columns);

}  // namespace zorvctl
