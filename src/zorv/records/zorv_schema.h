// The records' fields and the tables that hold them, declared once.
//
// A field is its name, its heading in tables for people, its record member and what it means; SQL
// type, value format and limits follow from the member. A table is its fields, how long its rows
// live, and the methods that serve it. The store, the daemon's start and stop, the client's calls
// and zorvctl's nouns all read these declarations, so the order of columns stands in one place.
//
// Records are handled as untyped memory here: only a field knows its record's type, and whatever
// works on fields is ordinary code. Everything is constant and may be used from any thread.
//
// A table more: its record in zorv_records.h, its fields and its row of kTables in zorv_schema.cpp.
#pragma once

#include <span>
#include <string_view>
#include <variant>

#include "zorv_connection_codes.h"
#include "zorv_records.h"

namespace zorv {

enum class Meaning { text, number, bytes, seconds, time, code };

enum class FieldType {
  text,
  int32,
  wrapped_int32,  // keeps the low 32 bits of the number in the database
  int64,
  uint64,
};

// A text is a view of the record, or of whatever else it came from.
using FieldValue = std::variant<std::string_view, record_int64, record_uint64>;

struct Field {
  const char* name;     // of the column, of the filter, of the option
  const char* heading;  // null: not shown in tables
  Meaning meaning;
  std::span<const CodeWord> words;  // of a code
  FieldType type;
  size_t size;  // of the member, in bytes
  void* (*member)(void* record);

  bool is_text() const { return type == FieldType::text; }
};

// A text ends at its terminator, or with its last byte.
FieldValue get(const Field& field, const void* record);
// The value must be of the alternative that get() gives. A text is cut to what the member holds
// with its terminator; a number keeps the bits that the member has.
void set(const Field& field, void* record, const FieldValue& value);

// Fills a text of a record: cut to what `size` bytes hold with the terminator, zero behind it.
void copy_text(char* ret_text, size_t size, std::string_view text);
template <size_t Size>
void copy_text(char (&ret_text)[Size], std::string_view text) {
  copy_text(ret_text, Size, text);
}

enum class Storage {
  persistent,
  temporary,  // lives in the daemon's connection and is lost with it
};

// What a delete or a clean builds on. An accumulating text is never restored: each delete and clean
// appends to what the ones before left, so the first runs as meant and later ones run the whole
// text.
enum class DeleteText { accumulates, restored };

// The wire name of each verb's method; null where the table has no such method. A verb more is a
// member more, named by the tables that have it.
struct TableMethods {
  const char* insert = nullptr;
  const char* query = nullptr;
  const char* remove = nullptr;
  const char* clean = nullptr;
};

struct TableSchema {
  const char* name;    // in SQL
  const char* module;  // whose name the log lines of its operations carry
  Storage storage;
  DeleteText delete_text;
  bool opened;                    // when the daemon starts, in the order of kTables
  bool finished;                  // when it stops
  std::span<const Field> fields;  // in the order of the columns, "id" first; none for an event
  size_t record_size;
  const Field* unique = nullptr;  // a row with a known value replaces the one that had it ...
  const Field* kept = nullptr;    // ... of which only this field stays; the daemon makes it
  TableMethods methods;

  // On zorvctl's command line.
  const char* noun;
  const char* plural;
  const char* description;
  const Field* time = nullptr;  // which moment a row speaks of

  // The field of that name, or null.
  const Field* find(std::string_view field_name) const;
  // Of one of this table's fields: what a query orders by.
  record_int64 index_of(const Field& field) const { return &field - fields.data(); }
  // Given by whoever adds a record, not by the daemon.
  bool is_given(const Field& field) const { return &field != fields.data() && &field != kept; }
};

extern const TableSchema kServerLog;
extern const TableSchema kClientLog;
extern const TableSchema kEventLog;
extern const TableSchema kServerList;
extern const TableSchema kDeviceInfo;
extern const TableSchema kUserBlock;

// All of them.
extern const std::span<const TableSchema* const> kTables;

}  // namespace zorv
