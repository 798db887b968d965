// The rows of a page, read one after the other into records wherever their reader wants them.
//
// A record is zero-filled before it is read (no stale bytes reach another process). A row that
// finds no space is dropped together with all that follow, and the query as a whole fails.
#pragma once

#include "zorvd_db_helper.h"

namespace store {

// Where the records of a page go.
class RowSpace {
 public:
  // The next `size` bytes, zeroed and valid until the next call; null when there are none. Called
  // from within SQLite, so it must not throw.
  virtual void* next(size_t size) = 0;

 protected:
  ~RowSpace() = default;
};

struct RowCounts {
  record_uint64 count = 0;  // records of this page
  record_uint64 total = 0;  // rows in the table, at most kMostRows
};

// Fills a zeroed record from a row's texts, which stand in the order of the columns. A table that
// some other program changed may give fewer texts than declared: the missing ones read as NULL.
void read_row(const zorv::TableSchema& schema, int text_count, char** texts, void* ret_record);

// Puts a page's records into `space`. 0, or -1 with ret_counts untouched for a bad column index or
// when `space` did not hold the rows.
int select_rows(Table& table, const db_query_cond& cond, RowSpace& space, RowCounts& ret_counts);

// Records as one array from the C heap, which grows geometrically.
class RowArray final : public RowSpace {
 public:
  RowArray() = default;
  ~RowArray();
  RowArray(const RowArray&) = delete;
  RowArray& operator=(const RowArray&) = delete;

  void* next(size_t size) override;
  const void* first() const { return bytes_; }
  // The array, which is the caller's to free; null without records.
  void* release();

 private:
  bool grow(size_t size);

  char* bytes_ = nullptr;
  size_t used_ = 0;
  size_t capacity_ = 0;
};

// The same as an array: the caller provides the zeroed **out and releases its `data` with free.
template <class Query>
int select_query(Table& table, const db_query_cond& cond, Query** out) {
  RowArray rows;
  RowCounts counts;
  if (select_rows(table, cond, rows, counts) != 0) {
    return -1;
  }
  (*out)->count = counts.count;
  (*out)->total = counts.total;
  (*out)->data = static_cast<decltype((*out)->data)>(rows.release());
  return 0;
}

}  // namespace store
