// Reads records from the daemon, page by page, and hands on those that are wanted.
//
// The daemon filters by one column and knows no times, so further filters and the time window are
// applied here. It shows the newest kMostRowsShown rows of a table and no older ones.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "record_kind.h"

namespace zorvctl {

inline constexpr unsigned long long kMostRowsShown = 100000;

struct Filter {
  const Column* column;
  std::string text;  // of a text column
  Value number;      // of any other

  bool matches(const void* record) const;
  // As the daemon compares it. It takes an empty text for no filter.
  std::string wire_text() const;
};

struct RecordQuery {
  unsigned long long limit = 0;  // 0: all
  unsigned long long offset = 0;
  const Column* order_by = nullptr;  // null: by id
  bool descending = true;
  std::vector<Filter> filters;
  std::optional<unsigned long long> since;  // both ends belong to the window
  std::optional<unsigned long long> until;
};

struct QueryEvents {
  std::function<void(const void* record)> on_record;
  std::function<void()> on_page_end;
  // Before each further page: how many rows were read, of how many in the table.
  std::function<void(unsigned long long read, unsigned long long total)> on_wait;
};

enum class QueryEnd {
  complete,
  more,        // rows beyond the limit match, too
  unanswered,  // no page came; what came before was handed on
  late,        // the same, for want of an answer in time
  unread,      // the daemon lives and could not read its table
};

// *ret_total, unless null, is how many rows the table has, up to kMostRowsShown.
QueryEnd run_query(const RecordKind& kind, const RecordQuery& query, const QueryEvents& events,
                   unsigned long long* ret_total = nullptr);

}  // namespace zorvctl
