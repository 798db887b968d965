// Reads records from the daemon, page by page, and hands on those that are wanted.
//
// The daemon knows an order and one field's equality, so other filters and the time window are
// applied here. It shows the newest kMostRowsShown rows of a table and no older ones.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "filter.h"
#include "zorv_schema.h"

namespace zorvctl {

inline constexpr unsigned long long kMostRowsShown = 100000;
// Of the largest record 14 MiB, three times in memory on the way: what a small NAS can spare.
inline constexpr unsigned long long kPageRows = 2000;

struct RecordQuery {
  unsigned long long limit = 0;  // 0: all
  unsigned long long offset = 0;
  const zorv::Field* order_by = nullptr;  // null: by id
  bool descending = true;
  std::vector<Filter> filters;
  std::optional<unsigned long long> since;  // both ends belong to the window
  std::optional<unsigned long long> until;
  // What is filtered and handed on in place of a record, valid until the next: the same with what
  // is worked out behind it. Null: the record.
  std::function<const void*(const void* record)> row_of;
};

struct QueryEvents {
  // False: no further record is wanted.
  std::function<bool(const void* record)> on_record;
  std::function<void()> on_page_end = [] {};
  // Before each further page: how many rows were read, of how many in the table.
  std::function<void(unsigned long long read, unsigned long long total)> on_wait =
      [](unsigned long long, unsigned long long) {};
};

struct QueryResult {
  unsigned long long total = 0;  // rows in the table, up to kMostRowsShown
  bool more = false;             // rows beyond the limit match, too
};

// 0, or why a page did not come: a status of the bus, or kTableNotRead. What came before was handed
// on.
int run_query(const zorv::TableSchema& table, const RecordQuery& query, const QueryEvents& events,
              QueryResult* ret = nullptr);

}  // namespace zorvctl
