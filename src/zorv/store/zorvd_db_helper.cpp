#include "zorvd_db_helper.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "rooted.h"

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

void begin_operation(Table& table) {
  table.patience_ends = std::chrono::steady_clock::now() + kLockPatience;
}

// SQLite asks whether to try again for a lock that another process holds.
int wait_for_lock(void* user, int /*tries*/) {
  if (std::chrono::steady_clock::now() >= static_cast<Table*>(user)->patience_ends) {
    return 0;
  }
  constexpr timespec pause{0, 2'000'000};
  nanosleep(&pause, nullptr);
  return 1;
}

// Opens the connection where there is none. A module that was never created has no file, and its
// statements go to SQLite without a connection, which refuses them.
int open_connection(Table& table) {
  if (table.__db__ != nullptr || table.__db_file.empty()) {
    return SQLITE_OK;
  }
  sqlite3* db = nullptr;
  const int result = sqlite3_open(os::rooted(table.__db_file.c_str()).c_str(), &db);
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
  sqlite3_busy_handler(db, wait_for_lock, &table);
  return SQLITE_OK;
}

void execute_ignoring_result(Table& table, const char* statement) {
  sqlite3_exec(table.__db__.get(), statement, nullptr, nullptr, nullptr);
}

std::string head(const char* before, const Table& table, const char* after) {
  return std::string(before) + table.traits.name + after;
}

void start_texts(Table& table) {
  const bool temporary = table.traits.storage == Storage::temporary;
  table.__db_fields[0].assign("id");
  table.__db_field_index__ = 1;
  table.__db_table_name_str.assign(table.traits.name);
  table.__db_file.assign(kDatabaseFile);
  // Two blanks: the word TEMPORARY would stand between them.
  table.__db_create_str.assign(
      head(temporary ? "CREATE TEMPORARY TABLE IF NOT EXISTS " : "CREATE  TABLE IF NOT EXISTS ",
           table, " (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE"));
  table.__db_insert_str1.assign(head("INSERT OR REPLACE INTO ", table, " ("));
  table.__db_delete_str.assign(head("DELETE FROM ", table, ""));
  table.__db_update_str.assign(head("UPDATE ", table, " SET "));
}

void add_column(Table& table, const ColumnText& column) {
  if (static_cast<size_t>(table.__db_field_index__) >= table.__db_fields.size()) {
    return;
  }
  auto& name = table.__db_fields[static_cast<size_t>(table.__db_field_index__)];
  name.assign(column.name);
  ++table.__db_field_index__;
  table.__db_create_str.append(", ");
  table.__db_create_str.append(column.name);
  table.__db_create_str.append(" ");
  table.__db_create_str.append(column.type);
  if (table.__is_first_field == 1) {
    table.__is_first_field = 0;
  } else {
    table.__db_insert_field.append(", ");
    table.__db_insert_arg.append(", ");
    table.__db_update_str.append(", ");
  }
  table.__db_insert_field.append(column.name);
  table.__db_insert_arg.append(column.format);
  table.__db_update_str.append(column.name);
  table.__db_update_str.append(" = ");
  table.__db_update_str.append(column.format);
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
      table.traits.unique_column, table.__db_table_name_str.c_str(), table.traits.unique_column));
  if (statement == nullptr ||
      sqlite3_exec(table.__db__.get(), statement.get(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    ZORV_LOG_FOR(table.log, error, "create db failed: %s", or_null_text(statement.get()));
  }
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

// The text that a delete or clean appends to, as the table's kind says.
void restore_delete_text(Table& table) {
  if (table.traits.delete_text == DeleteText::restored) {
    table.__db_delete_str.assign(head("DELETE FROM ", table, ""));
  }
}

// An accumulated text holds one placeholder for each earlier delete; the first takes `id`, the
// others 0, which no row bears.
constexpr size_t kMostPlaceholders = kTextBufferSize / 16;

template <size_t... Index>
SqlText format_delete_text(const Table& table, record_uint64 id,
                           std::index_sequence<Index...> /*unused*/) {
  return SqlText(sqlite3_mprintf(table.__db_delete_str.c_str(), id,
                                 (static_cast<void>(Index), record_uint64{0})...));
}

void run_delete_text(Table& table, record_uint64 id) {
  run(table, format_delete_text(table, id, std::make_index_sequence<kMostPlaceholders>()));
}

}  // namespace

int create(Table& table, std::span<const ColumnText> columns) {
  begin_operation(table);
  if (table.__db_create_str.empty()) {
    start_texts(table);
  }
  for (const ColumnText& column : columns) {
    add_column(table, column);
  }
  finish_texts(table);

  if (open_connection(table) != SQLITE_OK || table.__db__ == nullptr) {
    ZORV_LOG_FOR(table.log, error, "rc NULL");
    return -1;
  }
  for (const char* pragma : kPragmas) {
    execute_ignoring_result(table, pragma);
  }
  if (sqlite3_exec(table.__db__.get(), table.__db_create_str.c_str(), nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    ZORV_LOG_FOR(table.log, error, "create db failed: %s", table.__db_create_str.c_str());
    close_connection(table);
    return -1;
  }
  if (table.traits.unique_column != nullptr) {
    make_unique_index(table);
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
      ZORV_LOG_FOR(table.log, error, "sql = %s, err = %s", or_null_text(statement.get()), text);
      if (ret_error != nullptr) {
        *ret_error = text;
      }
      close_connection(table);
    }
  }
  if (result != SQLITE_OK) {
    ZORV_LOG_FOR(table.log, error, "RET = %d", result);
  }
  return result;
}

int run_for_integer(Table& table, SqlText statement, record_int64& ret_value) {
  IntegerTarget target{table, ret_value};
  return run(table, std::move(statement), common_callback, &target);
}

void insert_row(Table& table, SqlText statement) {
  begin_operation(table);
  const char* name = table.__db_table_name_str.c_str();
  run(table, SqlText(sqlite3_mprintf("BEGIN TRANSACTION;")));
  run(table, std::move(statement));
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
}

const char* direction(record_int64 order_style) {
  return order_style == 0 ? "ASC" : "DESC";
}

int select_page(Table& table, const db_query_cond& cond, sqlite3_callback callback, void* user,
                record_uint64& ret_total) {
  begin_operation(table);
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
    // Not a column of any table. It never reaches SQLite, so it cannot be more than a failed
    // filter, and it costs no temporary table its connection.
    ZORV_LOG_FOR(table.log, error, "sql = %s, err = %s", or_null_text(query.get()),
                 "field is not a column name");
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

int delete_row(Table& table, record_uint64 id) {
  begin_operation(table);
  restore_delete_text(table);
  table.__db_delete_str.append(" WHERE id = %llu;");
  run_delete_text(table, id);
  return 0;
}

int clean(Table& table) {
  begin_operation(table);
  restore_delete_text(table);
  if (table.traits.delete_text == DeleteText::accumulates) {
    table.__db_delete_str.append(";");
  }
  run_delete_text(table, 0);
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
