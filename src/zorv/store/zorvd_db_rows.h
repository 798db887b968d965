// The rows of a page, read one after the other into records wherever their reader wants them.
//
// A record is zero-filled before it is read (no stale bytes reach another process). A row that
// finds no space is dropped together with all that follow, and the query as a whole fails.
#pragma once

#include <cstdlib>
#include <cstring>
#include <utility>

#include "zorvd_db_helper.h"
#include "zorvd_db_row_space.h"

namespace store {

// Records as one array from the C heap, which grows geometrically.
class RowArray final : public RowSpace {
 public:
  RowArray() = default;
  ~RowArray() { std::free(bytes_); }
  RowArray(const RowArray&) = delete;
  RowArray& operator=(const RowArray&) = delete;

  void* next(size_t size) override {
    if (capacity_ - used_ < size && !grow(size)) {
      return nullptr;
    }
    char* space = bytes_ + used_;
    used_ += size;
    return std::memset(space, 0, size);
  }

  // The array, which is the caller's to free; null without records.
  void* release() { return std::exchange(bytes_, nullptr); }

 private:
  static constexpr size_t kFirstRecords = 16;

  bool grow(size_t size) {
    if (size > SIZE_MAX / kFirstRecords || capacity_ > SIZE_MAX / 2) {
      return false;
    }
    const size_t wanted = capacity_ == 0 ? size * kFirstRecords : capacity_ * 2;
    void* grown = std::realloc(bytes_, wanted);
    if (grown == nullptr) {
      return false;
    }
    bytes_ = static_cast<char*>(grown);
    capacity_ = wanted;
    return true;
  }

  char* bytes_ = nullptr;
  size_t used_ = 0;
  size_t capacity_ = 0;
};

template <class Record, class AllColumns>
class RowReader {
 public:
  RowReader(Table& table, const AllColumns& columns, RowSpace& space)
      : table_(table), columns_(columns), space_(space) {}

  // The signature of SQLite's row callback; `user` is the RowReader. Always 0: a row that cannot be
  // kept must not abort the statement, which would close the connection.
  static int select_callback(void* user, int text_count, char** texts, char** /*names*/) {
    static_cast<RowReader*>(user)->append(text_count, texts);
    return 0;
  }

  record_uint64 count() const { return count_; }
  bool incomplete() const { return incomplete_; }

 private:
  void append(int text_count, char** texts) {
    if (incomplete_) {
      return;
    }
    auto* record = static_cast<Record*>(space_.next(sizeof(Record)));
    if (record == nullptr) {
      ZORV_LOG_FOR(table_.log, debug, "realloc fail");
      incomplete_ = true;
      return;
    }
    read_row(columns_, text_count, texts, *record);
    ++count_;
  }

  Table& table_;
  const AllColumns& columns_;
  RowSpace& space_;
  record_uint64 count_ = 0;
  bool incomplete_ = false;
};

// The paged select of a table whose records are `Query`'s, into `space`; the head gets its numbers.
// 0, or -1 with an untouched head for a bad column index or when `space` did not hold the rows.
template <class Query, class AllColumns>
int select_records(Table& table, const AllColumns& columns, const db_query_cond& cond,
                   RowSpace& space, Query& ret_head) {
  using Reader = RowReader<typename Query::record_type, AllColumns>;
  Reader rows(table, columns, space);
  record_uint64 total = 0;
  if (select_page(table, cond, &Reader::select_callback, &rows, total) != 0 || rows.incomplete()) {
    return -1;
  }
  ret_head.count = rows.count();
  ret_head.total = total;
  return 0;
}

// The same with the records as an array of its own: the caller provides the zeroed **out and
// releases its `data` with free.
template <class Query, class AllColumns>
int select_records(Table& table, const AllColumns& columns, const db_query_cond& cond,
                   Query** out) {
  RowArray rows;
  if (select_records(table, columns, cond, rows, **out) != 0) {
    return -1;
  }
  (*out)->data = static_cast<typename Query::record_type*>(rows.release());
  return 0;
}

}  // namespace store
