// The rows of a page as an array of records.
//
// The array comes from the C heap, is zero-filled (no stale heap bytes reach another process) and
// grows geometrically. A row that finds no memory is dropped together with all that follow, and the
// query as a whole fails.
#pragma once

#include <cstdlib>
#include <cstring>

#include "zorvd_db_helper.h"

namespace store {

template <class Query, class AllColumns>
class RowArray {
 public:
  using Record = typename Query::record_type;

  RowArray(Table& table, const AllColumns& columns, Query& ret_query)
      : table_(table), columns_(columns), query_(ret_query) {}

  // The signature of SQLite's row callback; `user` is the RowArray. Always 0: a row that cannot be
  // kept must not abort the statement, which would close the connection.
  static int select_callback(void* user, int text_count, char** texts, char** /*names*/) {
    static_cast<RowArray*>(user)->append(text_count, texts);
    return 0;
  }

  bool incomplete() const { return incomplete_; }

 private:
  void append(int text_count, char** texts) {
    if (incomplete_ || !make_room()) {
      return;
    }
    Record& record = query_.data[query_.count];
    std::memset(static_cast<void*>(&record), 0, sizeof record);
    read_row(columns_, text_count, texts, record);
    ++query_.count;
  }

  bool make_room() {
    if (query_.count < capacity_) {
      return true;
    }
    const size_t wanted = capacity_ == 0 ? kFirstCapacity : capacity_ * 2;
    void* grown = wanted <= SIZE_MAX / sizeof(Record)
                      ? std::realloc(static_cast<void*>(query_.data), wanted * sizeof(Record))
                      : nullptr;
    if (grown == nullptr) {
      ZORV_LOG_FOR(table_.log, debug, "realloc fail");
      incomplete_ = true;
      return false;
    }
    query_.data = static_cast<Record*>(grown);
    capacity_ = wanted;
    return true;
  }

  static constexpr size_t kFirstCapacity = 16;

  Table& table_;
  const AllColumns& columns_;
  Query& query_;
  size_t capacity_ = 0;
  bool incomplete_ = false;
};

// The paged select of a table whose records are `Query`'s. The caller provides the zeroed **out and
// releases its `data` with free. 0, or -1 with no data for a bad column index or when the rows did
// not fit into memory.
template <class Query, class AllColumns>
int select_records(Table& table, const AllColumns& columns, const db_query_cond& cond,
                   Query** out) {
  RowArray<Query, AllColumns> rows(table, columns, **out);
  const int result =
      select_page(table, cond, &decltype(rows)::select_callback, &rows, (*out)->total);
  if (rows.incomplete()) {
    std::free(static_cast<void*>((*out)->data));
    (*out)->data = nullptr;
    (*out)->count = 0;
    return -1;
  }
  return result;
}

}  // namespace store
