#include "zorvd_db_helper.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <utility>
#include <vector>

#include "long_conversion.h"
#include "rooted.h"
#include "row_keeping_vfs.h"

namespace store {
namespace {

constexpr const char* kPragmas[] = {
    "PRAGMA page_size = 2048;",           "PRAGMA synchronous = ON;",
    "PRAGMA auto_vacuum = FULL;",         "PRAGMA journal_mode = OFF;",
    "PRAGMA default_cache_size = 10000;", "PRAGMA cache_size = 10000;",
};

const char* or_null_text(const char* text) {
  return text != nullptr ? text : "(null)";
}

void close_connection(Table& table) {
  ZORV_LOG_FOR(table.log, warn, "close db %p", static_cast<void*>(table.__db__.get()));
  table.__db__.reset();
}

int operations = 0;  // in progress, one within the other
std::chrono::steady_clock::time_point patience_ends;

// SQLite asks whether to try again for a lock that another process holds.
int wait_for_lock(void* /*user*/, int /*tries*/) {
  if (std::chrono::steady_clock::now() >= patience_ends) {
    return 0;
  }
  constexpr timespec pause{0, 2'000'000};
  nanosleep(&pause, nullptr);
  return 1;
}

int set_up_connection(Table& table);

// Opens the connection where there is none. A module that was never created has no file, and its
// statements go to SQLite without a connection, which refuses them.
int open_connection(Table& table) {
  if (table.__db__ != nullptr || table.__db_file.empty()) {
    return SQLITE_OK;
  }
  sqlite3* db = nullptr;
  const int result = sqlite3_open_v2(os::rooted(table.__db_file.c_str()).c_str(), &db,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, row_keeping_vfs());
  table.__db__.reset(db);
  ZORV_LOG_FOR(table.log, info, "db open %p", static_cast<void*>(db));
  if (result != SQLITE_OK) {
    ZORV_LOG_FOR(table.log, error, "open db failed, %s",
                 db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(result));
    if (db != nullptr) {
      close_connection(table);
    }
    return result;
  }
  sqlite3_busy_handler(db, wait_for_lock, nullptr);
  if (table.create_is_due) {
    table.create_is_due = set_up_connection(table) == SQLITE_BUSY;
  }
  return SQLITE_OK;
}

void execute_ignoring_result(Table& table, const char* statement) {
  sqlite3_exec(table.__db__.get(), statement, nullptr, nullptr, nullptr);
}

std::string head(const char* before, const Table& table, const char* after) {
  return std::string(before) + table.schema.name + after;
}

void start_texts(Table& table, const char* file) {
  const bool temporary = table.schema.storage == zorv::Storage::temporary;
  table.__db_fields[0].assign("id");
  table.__db_field_index__ = 1;
  table.__db_table_name_str.assign(table.schema.name);
  table.__db_file.assign(file);
  // Two blanks: the word TEMPORARY would stand between them.
  table.__db_create_str.assign(
      head(temporary ? "CREATE TEMPORARY TABLE IF NOT EXISTS " : "CREATE  TABLE IF NOT EXISTS ",
           table, " (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE"));
  table.__db_insert_str1.assign(head("INSERT OR REPLACE INTO ", table, " ("));
  table.__db_delete_str.assign(head("DELETE FROM ", table, ""));
  table.__db_update_str.assign(head("UPDATE ", table, " SET "));
}

// A text that the row with the same unique value already has is kept: the format asks for that
// value twice and then for the new text.
std::string kept_format(const zorv::TableSchema& schema) {
  const std::string known = std::string("(SELECT ") + schema.kept->name + " FROM " + schema.name +
                            " WHERE " + schema.unique->name + " = '%q')";
  return std::string("CASE WHEN EXISTS (SELECT * FROM ") + schema.name + ") AND " + known +
         " IS NOT NULL THEN " + known + " ELSE '%q' END";
}

std::string value_format(const zorv::TableSchema& schema, const zorv::Field& field) {
  if (&field == schema.kept) {
    return kept_format(schema);
  }
  switch (field.type) {
    case zorv::FieldType::text:
      return "'%q'";
    case zorv::FieldType::int32:
    case zorv::FieldType::wrapped_int32:
      return "%d";
    case zorv::FieldType::int64:
      return "%lld";
    case zorv::FieldType::uint64:
      break;
  }
  return "%llu";
}

void add_column(Table& table, const zorv::Field& field) {
  if (static_cast<size_t>(table.__db_field_index__) >= table.__db_fields.size()) {
    return;
  }
  table.__db_fields[static_cast<size_t>(table.__db_field_index__)].assign(field.name);
  ++table.__db_field_index__;
  table.__db_create_str.append(", ");
  table.__db_create_str.append(field.name);
  table.__db_create_str.append(field.is_text() ? " TEXT" : " INTEGER");
  if (table.__is_first_field == 1) {
    table.__is_first_field = 0;
  } else {
    table.__db_insert_field.append(", ");
    table.__db_insert_arg.append(", ");
    table.__db_update_str.append(", ");
  }
  const std::string format = value_format(table.schema, field);
  table.__db_insert_field.append(field.name);
  table.__db_insert_arg.append(format);
  table.__db_update_str.append(field.name);
  table.__db_update_str.append(" = ");
  table.__db_update_str.append(format);
}

void finish_texts(Table& table) {
  table.__db_create_str.append(");");
  table.__db_insert_str.assign(table.__db_insert_str1.c_str());
  table.__db_insert_str.append(table.__db_insert_field.c_str());
  table.__db_insert_str.append(") VALUES (");
  table.__db_insert_str.append(table.__db_insert_arg.c_str());
  table.__db_insert_str.append(");");
}

void make_unique_index(Table& table) {
  const SqlText statement(sqlite3_mprintf(
      "CREATE UNIQUE INDEX idx_%s_%s ON %s (%s);", table.__db_table_name_str.c_str(),
      table.schema.unique->name, table.__db_table_name_str.c_str(), table.schema.unique->name));
  if (statement == nullptr ||
      sqlite3_exec(table.__db__.get(), statement.get(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    ZORV_LOG_FOR(table.log, error, "create db failed: %s", or_null_text(statement.get()));
  }
}

// Sets the pragmas and makes the table; SQLite's result.
int set_up_connection(Table& table) {
  sqlite3* const db = table.__db__.get();
  // Nobody looks at what they give, so they wait for nobody.
  sqlite3_busy_handler(db, nullptr, nullptr);
  for (const char* pragma : kPragmas) {
    execute_ignoring_result(table, pragma);
  }
  sqlite3_busy_handler(db, wait_for_lock, nullptr);
  const int result = sqlite3_exec(db, table.__db_create_str.c_str(), nullptr, nullptr, nullptr);
  if (result == SQLITE_OK && table.schema.unique != nullptr) {
    make_unique_index(table);
  }
  return result;
}

struct IntegerTarget {
  Table& table;
  record_int64& value;
};

int common_callback(void* user, int column_count, char** texts, char** /*names*/) {
  auto& target = *static_cast<IntegerTarget*>(user);
  const char* text = texts != nullptr ? texts[0] : nullptr;
  ZORV_LOG_FOR(target.table.log, debug, "count = %d, rows[%d] = %s", column_count, 0,
               or_null_text(text));
  if (column_count != 1 || text == nullptr) {
    return -1;
  }
  target.value = long_conversion(text);
  return 0;
}

bool is_plain_word(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; });
}

template <size_t Size>
std::string bounded(const char (&text)[Size]) {
  return {text, strnlen(text, Size - 1)};
}

// What an insert's placeholders take, in the order of the columns.
std::vector<zorv::FieldValue> insert_values(const zorv::TableSchema& schema, const void* record) {
  std::vector<zorv::FieldValue> values;
  for (const zorv::Field& field : schema.fields) {
    if (&field == schema.kept) {
      values.insert(values.end(), 2, zorv::get(*schema.unique, record));
    }
    if (&field != schema.fields.data()) {
      values.push_back(zorv::get(field, record));
    }
  }
  return values;
}

void append_value(sqlite3_str* statement, const zorv::FieldValue& value) {
  if (const auto* text = std::get_if<std::string_view>(&value)) {
    sqlite3_str_appendf(statement, "%.*q", static_cast<int>(text->size()), text->data());
  } else if (const auto* number = std::get_if<record_int64>(&value)) {
    sqlite3_str_appendf(statement, "%lld", *number);
  } else {
    sqlite3_str_appendf(statement, "%llu", std::get<record_uint64>(value));
  }
}

int run_for_integer(Table& table, SqlText statement, record_int64& ret_value) {
  IntegerTarget target{table, ret_value};
  return run(table, std::move(statement), common_callback, &target);
}

// Puts `ending` behind the delete text, the stored or a restored one, and runs all of it.
void run_delete_text(Table& table, const char* ending, std::span<const zorv::FieldValue> values) {
  if (table.schema.delete_text == zorv::DeleteText::restored) {
    table.__db_delete_str.assign(head("DELETE FROM ", table, ""));
  }
  table.__db_delete_str.append(ending);
  run(table, fill(table.__db_delete_str.c_str(), values));
}

}  // namespace

Operation::Operation(std::chrono::milliseconds patience) {
  if (operations++ == 0) {
    patience_ends = std::chrono::steady_clock::now() + patience;
  }
}

Operation::~Operation() {
  --operations;
}

Table& table_of(const zorv::TableSchema& schema) {
  static std::map<const zorv::TableSchema*, Table> tables;
  return tables.try_emplace(&schema, schema).first->second;
}

int create(Table& table, const char* file) {
  const Operation operation;
  if (table.__db_create_str.empty()) {
    start_texts(table, file);
  }
  for (const zorv::Field& field : table.schema.fields) {
    if (&field != table.schema.fields.data()) {
      add_column(table, field);
    }
  }
  finish_texts(table);

  if (open_connection(table) != SQLITE_OK || table.__db__ == nullptr) {
    ZORV_LOG_FOR(table.log, error, "rc NULL");
    return -1;
  }
  if (const int result = set_up_connection(table); result != SQLITE_OK) {
    ZORV_LOG_FOR(table.log, error, "create db failed: %s", table.__db_create_str.c_str());
    close_connection(table);
    // Another process held the file: the first statement that is let in makes the table.
    table.create_is_due = result == SQLITE_BUSY;
    return -1;
  }
  return 0;
}

int run(Table& table, SqlText statement, sqlite3_callback callback, void* user,
        std::string* ret_error) {
  int result = open_connection(table);
  if (result == SQLITE_OK) {
    ZORV_LOG_FOR(table.log, debug, "sqlite3_exec %s", or_null_text(statement.get()));
    char* raw_error = nullptr;
    result = statement != nullptr
                 ? sqlite3_exec(table.__db__.get(), statement.get(), callback, user, &raw_error)
                 : SQLITE_NOMEM;
    const SqlText error(raw_error);
    if (result != SQLITE_OK) {
      const char* text = error != nullptr ? error.get() : sqlite3_errstr(result);
      if (ret_error != nullptr) {
        *ret_error = text;
      }
      ZORV_LOG_FOR(table.log, error, "sql = %s, err = %s", or_null_text(statement.get()), text);
      close_connection(table);
    }
  }
  if (result != SQLITE_OK) {
    ZORV_LOG_FOR(table.log, error, "RET = %d", result);
  }
  return result;
}

SqlText fill(const char* format, std::span<const zorv::FieldValue> values) {
  sqlite3_str* const statement = sqlite3_str_new(nullptr);
  auto value = values.begin();
  while (const char* placeholder = std::strchr(format, '%')) {
    sqlite3_str_append(statement, format, static_cast<int>(placeholder - format));
    const char* const letter = std::strpbrk(placeholder, "qdu");
    if (letter == nullptr) {
      format = "";  // cut off by the end of the buffer
      break;
    }
    append_value(statement, value != values.end() ? *value++ : record_int64{0});
    format = letter + 1;
  }
  sqlite3_str_appendall(statement, format);
  return SqlText(sqlite3_str_finish(statement));
}

int insert_row(Table& table, std::span<const zorv::FieldValue> values) {
  const Operation operation;
  const char* name = table.__db_table_name_str.c_str();
  run(table, SqlText(sqlite3_mprintf("BEGIN TRANSACTION;")));
  run(table, fill(table.__db_insert_str.c_str(), values));
  record_int64 rows = 0;
  run_for_integer(table, SqlText(sqlite3_mprintf("SELECT Count(*) FROM %s;", name)), rows);
  ZORV_LOG_FOR(table.log, debug, "GET_TOTAL = %lld", rows);
  if (rows > kRecycleThreshold) {
    ZORV_LOG_FOR(table.log, info, "Recycle, del %lld rows", kRecycleAmount);
    // Without ORDER BY the subquery walks in id order: the oldest rows go.
    run(table, SqlText(sqlite3_mprintf("DELETE from %s WHERE id IN (SELECT id from %s LIMIT %lld);",
                                       name, name, kRecycleAmount)));
  }
  run(table, SqlText(sqlite3_mprintf("END TRANSACTION;")));
  return 0;
}

int insert_record(Table& table, void* record) {
  for (const zorv::Field& field : table.schema.fields) {
    if (field.is_text()) {
      static_cast<char*>(field.member(record))[field.size - 1] = '\0';
    }
  }
  return insert_row(table, insert_values(table.schema, record));
}

const char* direction(record_int64 order_style) {
  return order_style == 0 ? "ASC" : "DESC";
}

int select_page(Table& table, const db_query_cond& cond, sqlite3_callback callback, void* user,
                record_uint64& ret_total) {
  const Operation operation;
  const bool known_column = cond.order_by >= 0 && cond.order_by < table.__db_field_index__;
  const char* order_name =
      known_column ? table.__db_fields[static_cast<size_t>(cond.order_by)].c_str() : "";
  ZORV_LOG_FOR(table.log, info,
               "start = %lld, count = %lld, order_by = %lld (%s), order_style = %lld", cond.start,
               cond.count, cond.order_by, order_name, cond.order_style);
  if (!known_column) {
    return -1;
  }
  const record_int64 count = capped(cond.count);
  if (count != cond.count) {
    ZORV_LOG_FOR(table.log, debug, "count %lld > maxium %lld, set count = %lld", cond.count,
                 kMostRows, kMostRows);
  }

  const char* name = table.__db_table_name_str.c_str();
  record_int64 first_id = -1;
  run_for_integer(table,
                  SqlText(sqlite3_mprintf("SELECT id FROM (SELECT * FROM %s ORDER BY id DESC LIMIT "
                                          "%lld) ORDER BY id ASC LIMIT 1;",
                                          name, kMostRows)),
                  first_id);
  ZORV_LOG_FOR(table.log, debug, "ID = %lld", first_id);
  ZORV_LOG_FOR(table.log, info, "first_id = %lld", first_id);

  const std::string field = bounded(cond.field);
  const std::string value = bounded(cond.value);
  const bool filtered = !field.empty() && !value.empty();
  const SqlText filter(filtered ? sqlite3_mprintf("%q = '%q' AND", field.c_str(), value.c_str())
                                : sqlite3_mprintf(""));
  // Without memory for the filter there is no query, rather than one that finds everything.
  SqlText query;
  if (filter != nullptr) {
    query.reset(sqlite3_mprintf(
        "SELECT * FROM %s WHERE %s id >= %lld ORDER BY %s %s LIMIT %lld OFFSET %lld;", name,
        filter.get(), first_id, order_name, direction(cond.order_style), count, cond.start));
  }
  ZORV_LOG_FOR(table.log, info, "select query = %s", or_null_text(query.get()));
  ZORV_LOG_FOR(table.log, info, "SELECT_STMT");
  if (filtered && !is_plain_word(field)) {
    // No column of any table: a statement that fails like any other, without reaching SQLite.
    ZORV_LOG_FOR(table.log, error, "sql = %s, err = %s", or_null_text(query.get()),
                 "field is not a column name");
    close_connection(table);
    ZORV_LOG_FOR(table.log, error, "RET = %d", SQLITE_ERROR);
  } else {
    run(table, std::move(query), callback, user);
  }

  record_int64 total = -1;
  run_for_integer(table, SqlText(sqlite3_mprintf("SELECT Count(*) FROM %s;", name)), total);
  if (total > kMostRows) {
    ZORV_LOG_FOR(table.log, warn, "total_count %lld > maxium %lld, set total_count = %lld", total,
                 kMostRows, kMostRows);
    total = kMostRows;
  }
  ret_total = static_cast<record_uint64>(total);
  return 0;
}

int delete_row(Table& table, record_int64 id) {
  const Operation operation;
  const zorv::FieldValue value = static_cast<record_uint64>(id);
  run_delete_text(table, " WHERE id = %llu;", {&value, 1});
  return 0;
}

int clean(Table& table) {
  const Operation operation;
  const bool accumulates = table.schema.delete_text == zorv::DeleteText::accumulates;
  run_delete_text(table, accumulates ? ";" : "", {});
  return 0;
}

int optimize(Table& table) {
  if (table.__db__ != nullptr) {
    execute_ignoring_result(table, "PRAGMA optimize;");
    execute_ignoring_result(table, "PRAGMA shrink_memory;");
  }
  return 0;
}

int finish(Table& table) {
  if (table.__db__ != nullptr) {
    char statement[kTextBufferSize];
    snprintf(statement, sizeof statement, "VACCUM %s", table.__db_table_name_str.c_str());
    // Not a statement of SQLite's; it is refused and changes nothing.
    execute_ignoring_result(table, statement);
    close_connection(table);
  }
  if (!table.__db_create_str.empty()) {
    table.__db_create_str.clear();
    table.__db_insert_str.clear();
    table.__db_insert_field.clear();
    table.__db_insert_arg.clear();
  }
  return 0;
}

}  // namespace store
