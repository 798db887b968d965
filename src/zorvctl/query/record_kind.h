// The records that zorvctl lists and changes: for each its noun on the command line, its columns
// and the client functions that carry it. To add a record, add its columns and one row in
// record_kind.cpp.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include "column.h"

namespace zorvctl {

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};

// One answer to a query. `answered` is false when the daemon gave none.
struct Page {
  bool answered = false;
  unsigned long long count = 0;
  unsigned long long total = 0;
  std::unique_ptr<void, FreeMemory> records;
  size_t record_size = 0;

  const void* record(unsigned long long index) const {
    return static_cast<const char*>(records.get()) + static_cast<size_t>(index) * record_size;
  }
};

// What Page::total says when the daemon answered without having been able to read its table.
inline constexpr unsigned long long kTableUnread = ~0ULL;

struct RecordKind {
  const char* noun;
  const char* description;
  const char* plural;
  Columns columns;  // in the order of the database's columns: their index is what a query orders by
  const char* time_column;  // which --since and --until look at; null: none
  bool always_empty;        // the daemon keeps no rows of this record
  size_t record_size;
  const char* delete_caution;  // of "delete" and "clean", for --help; null: none
  bool deletes_once;           // a second delete would cost the whole table
  bool answers_add;            // with a text that is empty when nothing was kept

  Page (*list)(db_query_cond& cond);
  // Each returns the status of the bus. A null pointer: the daemon has no such method.
  int (*add)(void* record, std::string* ret_answer);
  int (*remove)(long long id);
  int (*clean)();
};

extern const RecordKind kServerLog;
extern const RecordKind kClientLog;
extern const RecordKind kEvent;
extern const RecordKind kSession;
extern const RecordKind kDevice;
extern const RecordKind kBlock;

// The index of the column by which a query orders.
inline long long column_index(const RecordKind& kind, const Column& column) {
  return &column - kind.columns.data();
}

}  // namespace zorvctl
