// The store engine: what every table of the record store does the same way.
//
// All tables live in one SQLite file. Each is a Table with a connection of its own, made from its
// declaration (zorv_schema.h); the engine is ordinary code over that. The life of a table:
//
//   uncreated -> create -> open, closed by any statement that fails, reopened by the next one ->
//   finish
//
// A failed statement is logged, closes the connection and never stops the operation it belongs to:
// the next statement opens the file again. A temporary table is lost with its connection and
// nothing makes it anew, so after a failure its module fails until the daemon is started again.
// Only where another process held the file at create, the table is made by the first statement that
// finds it free.
//
// The journal is off: BEGIN and END group the statements of an insert, nothing is ever rolled back.
// What a cut must not cost is kept below SQLite (row_keeping_vfs.h).
//
// All of the store runs on the bus's callback thread, one request at a time, without locks.
#pragma once

#include <sqlite3.h>

#include <array>
#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "logger.h"
#include "zorv_schema.h"

namespace store {

inline constexpr const char* kDatabaseFile = "/etc/config/zorv/zorv.db";
inline constexpr record_int64 kMostRows = 100000;          // of a page and of a reported total
inline constexpr record_int64 kRecycleThreshold = 101999;  // rows that a table may hold
inline constexpr record_int64 kRecycleAmount = 2000;       // oldest rows dropped beyond it
inline constexpr size_t kTextBufferSize = 4096;            // of every statement text
inline constexpr size_t kFieldNameSize = 40;
inline constexpr size_t kMostFields = 128;

// How long an operation waits, all its statements together, for another process that holds the
// file. An operation within another one has the outer one's time: a request waits once, however
// many operations it makes.
class Operation {
 public:
  // The caller of a request waits 5 s.
  static constexpr std::chrono::milliseconds kPatience{2000};

  explicit Operation(std::chrono::milliseconds patience = kPatience);
  ~Operation();
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;
};

// A text that never holds more than Size - 1 characters; what does not fit is cut off.
template <size_t Size>
class BoundedText {
 public:
  void assign(std::string_view text) { text_ = text.substr(0, Size - 1); }
  void append(std::string_view text) { text_ += text.substr(0, Size - 1 - text_.size()); }
  void clear() { text_.clear(); }
  bool empty() const { return text_.empty(); }
  const char* c_str() const { return text_.c_str(); }

 private:
  std::string text_;
};

struct CloseDatabase {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

struct FreeSqlText {
  void operator()(char* text) const { sqlite3_free(text); }
};
using SqlText = std::unique_ptr<char, FreeSqlText>;

struct Table {
  explicit Table(const zorv::TableSchema& table_schema)
      : schema(table_schema), log{table_schema.module} {}

  const zorv::TableSchema& schema;
  LogModule log;  // lines of the engine carry the table module's name

  Database __db__;
  BoundedText<kTextBufferSize> __db_file;  // plain path; empty until created
  BoundedText<kTextBufferSize> __db_table_name_str;
  BoundedText<kTextBufferSize> __db_create_str;
  BoundedText<kTextBufferSize> __db_insert_str1;
  BoundedText<kTextBufferSize> __db_insert_field;
  BoundedText<kTextBufferSize> __db_insert_arg;
  BoundedText<kTextBufferSize> __db_insert_str;
  BoundedText<kTextBufferSize> __db_update_str;
  BoundedText<kTextBufferSize> __db_delete_str;
  std::array<BoundedText<kFieldNameSize>, kMostFields> __db_fields;
  int __db_field_index__ = 0;  // columns registered, "id" included
  int __is_first_field = 1;
  bool create_is_due = false;  // the file was locked when the table was to be made
};

// The one table of that declaration.
Table& table_of(const zorv::TableSchema& schema);

// Assembles the texts, opens the file, sets the pragmas and makes the table. 0, or -1 with the
// connection closed. Called once a Table: a second call would register the columns again.
int create(Table& table, const char* file = kDatabaseFile);

// A statement: each placeholder of `format`, in SQLite's printf language, takes the next value.
// Where there are fewer values than placeholders the missing ones are 0, an id that no row bears.
// Null without memory.
SqlText fill(const char* format, std::span<const zorv::FieldValue> values);

// Runs one statement, opening the connection if needed. 0 or SQLite's result, which has been
// logged; *ret_error, when asked for, gets SQLite's text of a failure.
int run(Table& table, SqlText statement, sqlite3_callback callback = nullptr, void* user = nullptr,
        std::string* ret_error = nullptr);

// Inserts a row in a transaction, then drops the oldest rows of a table that is full. The values
// fill the table's insert text. Always 0.
int insert_row(Table& table, std::span<const zorv::FieldValue> values);
// The same for a record of the table, whose texts are ended where they lack a terminator.
int insert_record(Table& table, void* record);

// A page: hands each row to `callback`. 0, or -1 for a column index that is out of range.
int select_page(Table& table, const db_query_cond& cond, sqlite3_callback callback, void* user,
                record_uint64& ret_total);

// Each always 0.
int delete_row(Table& table, record_int64 id);
int clean(Table& table);
int optimize(Table& table);
int finish(Table& table);

// "ASC" or "DESC" of a condition's order_style.
const char* direction(record_int64 order_style);

// The rows of a page at most: a condition's count, where -1 and too many mean kMostRows.
constexpr record_int64 capped(record_int64 count) {
  return count == -1 || count > kMostRows ? kMostRows : count;
}

}  // namespace store
