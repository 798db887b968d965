// The declaration of tables against the documentation, which stands by itself, and against the
// daemon: every column of every table there and back.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>

#include "harness/daemon.h"
#include "harness/records.h"
#include "zorv_calls.h"
#include "zorvd_db.h"

namespace {

using Cells = std::vector<std::string>;
using zorv::Field;
using zorv::TableSchema;

// A line of a table without its marks: `| a | `b` |` is {"a", "b"}; nothing of another line.
Cells cells_of(std::string line) {
  Cells cells;
  std::erase(line, '`');
  for (size_t at = line.starts_with("| ") ? 0 : std::string::npos, end;
       (end = line.find('|', at + 1)) != std::string::npos; at = end) {
    const std::string cell = line.substr(at + 1, end - at - 1);
    const size_t first = cell.find_first_not_of(' ');
    cells.push_back(first == std::string::npos
                        ? ""
                        : cell.substr(first, cell.find_last_not_of(' ') - first + 1));
  }
  return cells;
}

std::ifstream documentation() {
  return std::ifstream(ZORV_SOURCE "/docs/records.md");
}

// The number that ends a text, or 0.
size_t number_at_end(const std::string& text) {
  const char* const digits = text.c_str() + text.find_last_not_of("0123456789") + 1;
  return static_cast<size_t>(std::strtoull(digits, nullptr, 10));
}

TEST(Documentation, NamesEveryMethodWithWhatItTakesAndGives) {
  std::map<std::string, Cells> rows;
  std::ifstream file = documentation();
  for (std::string line; std::getline(file, line) && line != "## Conditions";) {
    const Cells row = cells_of(line);
    if (row.size() == 5 && row[0] != "method") {
      rows[row[0]] = row;
    }
  }
  EXPECT_EQ(rows.size(), 24U);
  EXPECT_EQ(methods().size(), 24U);
  for (const Method& method : methods()) {
    ASSERT_TRUE(rows.contains(method.name)) << method.name;
    const Cells& row = rows[method.name];
    EXPECT_EQ(method.request, row[1] == "any, not empty" ? 1 : number_at_end(row[1])) << row[0];
    EXPECT_EQ(method.reply, static_cast<size_t>(std::atoi(row[2].c_str()))) << row[0];
  }
  for (const TableSchema* table : zorv::kTables) {
    const zorv::TableMethods& names = table->methods;
    for (const auto& [name, verb] : {std::pair{names.insert, "add_"},
                                     {names.query, "list_"},
                                     {names.remove, "delete_"},
                                     {names.clean, "clean_"}}) {
      if (name != nullptr) {
        const Cells& row = rows[name];
        EXPECT_EQ(row[3].substr(0, row[3].find(':')),
                  table == &zorv::kEventLog ? "none" : table->name);
        EXPECT_TRUE(row[4].starts_with(verb)) << name;
      }
    }
    if (!table->fields.empty()) {
      EXPECT_EQ(table->record_size, number_at_end(rows[names.query][2])) << table->name;
    }
  }
}

std::string type_name(const Field& field) {
  return field.is_text()                         ? "char[" + std::to_string(field.size) + "]"
         : field.type == zorv::FieldType::uint64 ? "uint64"
         : field.type == zorv::FieldType::int64  ? "int64"
                                                 : "int32";
}

// A record of the table with zeros in it.
std::shared_ptr<void> new_record(const TableSchema& table) {
  return {std::calloc(1, table.record_size), std::free};
}

TEST(Documentation, NamesEveryColumnAtItsPlace) {
  for (const TableSchema* table : zorv::kTables) {
    std::ifstream file = documentation();
    const std::string title = ", " + std::to_string(table->record_size) + " bytes";
    std::string line;
    while (std::getline(file, line) &&
           !(line.starts_with("`db_") && line.find(title) != std::string::npos)) {
    }
    std::getline(file, line);
    std::getline(file, line);
    const Cells heads = cells_of(line);
    std::getline(file, line);
    const std::shared_ptr<void> record = new_record(*table);
    for (const Field& field : table->fields) {
      std::getline(file, line);
      const Cells row = cells_of(line);
      ASSERT_GE(row.size(), 4U) << table->name << " " << field.name;
      const auto offset =
          static_cast<char*>(field.member(record.get())) - static_cast<char*>(record.get());
      EXPECT_EQ(row[0], std::to_string(table->index_of(field)));
      EXPECT_EQ(row[1], std::to_string(offset)) << field.name;
      EXPECT_EQ(row[3].substr(0, row[3].find(',')), type_name(field)) << field.name;
      const bool renamed = heads.back() == "column";
      EXPECT_EQ(renamed ? row[4].substr(0, row[4].find(':')) : row[2], field.name);
      std::string words;
      for (const zorv::CodeWord& word : field.words) {
        words += (words.empty() ? "" : ", ") + std::to_string(word.code) + " " + word.word;
      }
      EXPECT_TRUE(words.empty() || row[4] == words) << row[4];
    }
    std::getline(file, line);
    EXPECT_TRUE(line.empty()) << "a field more: " << line;
  }
}

// Five records, of which no two columns have the same order.
constexpr int kRecords = 5;

void fill(const TableSchema& table, int number, void* ret_record) {
  int column = 0;
  for (const Field& field : table.fields) {
    const int rank = (number * (column % 4 + 1) + column / 4 + 1) % kRecords;
    const record_int64 value = (record_int64{rank} << 40) + 1000 * column + 7;
    std::string text = static_cast<char>('a' + rank) + std::string("'%s\xc3\xa9\"\n;--");
    text.resize(field.size - 1, static_cast<char>('A' + column));
    switch (field.type) {
      case zorv::FieldType::text:
        zorv::set(field, ret_record, text);
        break;
      case zorv::FieldType::uint64:
        zorv::set(field, ret_record, static_cast<record_uint64>(value));
        break;
      case zorv::FieldType::int64:
        zorv::set(field, ret_record, column % 2 == 0 ? value : -value);
        break;
      default:
        zorv::set(field, ret_record, record_int64{rank - 2} << 29);
    }
    ++column;
  }
}

std::string shown(const zorv::FieldValue& value) {
  return std::visit(
      [](const auto& content) {
        if constexpr (std::is_same_v<decltype(content), const std::string_view&>) {
          return std::string(content);
        } else {
          return std::to_string(content);
        }
      },
      value);
}

zorv_api::Rows found(const TableSchema& table, const db_query_cond& cond = harness::page()) {
  zorv_api::Rows rows;
  EXPECT_EQ(zorv_api::query(table, cond, rows), KX_SUCCESS) << table.name;
  return rows;
}

std::vector<record_int64> ids(const TableSchema& table,
                              const db_query_cond& cond = harness::page()) {
  const zorv_api::Rows rows = found(table, cond);
  std::vector<record_int64> ids;
  for (record_uint64 i = 0; i < rows.count; ++i) {
    ids.push_back(std::get<record_int64>(zorv::get(table.fields[0], rows.record(i))));
  }
  return ids;
}

// The tables that take whole records.
const TableSchema* const kFilled[] = {&zorv::kServerLog, &zorv::kClientLog, &zorv::kServerList,
                                      &zorv::kDeviceInfo};

void insert_all(const TableSchema& table) {
  for (int number = 0; number < kRecords; ++number) {
    const std::shared_ptr<void> record = new_record(table);
    fill(table, number, record.get());
    ASSERT_EQ(zorv_api::insert(table, record.get()), KX_SUCCESS) << table.name;
  }
}

TEST(Schema, EveryColumnOfEveryTableThereAndBack) {
  harness::Daemon daemon;
  for (const TableSchema* table : kFilled) {
    EXPECT_EQ(found(*table).total, 0U) << table->name;
    insert_all(*table);
  }
  for (const TableSchema* table : kFilled) {
    SCOPED_TRACE(table->name);
    const zorv_api::Rows rows = found(*table);
    ASSERT_EQ(rows.count, record_uint64{kRecords});
    EXPECT_EQ(rows.total, record_uint64{kRecords});
    for (const Field& field : table->fields) {
      SCOPED_TRACE(field.name);
      const bool assigned = !table->is_given(field);
      std::vector<std::pair<zorv::FieldValue, record_int64>> expected;
      for (int number = 0; number < kRecords; ++number) {
        const void* const row = rows.record(static_cast<record_uint64>(number));
        const std::shared_ptr<void> sent = new_record(*table);
        fill(*table, number, sent.get());
        EXPECT_EQ(zorv::get(field, row) == zorv::get(field, sent.get()), !assigned) << number;
        expected.emplace_back(zorv::get(field, row), number + 1);
      }
      std::sort(expected.begin(), expected.end());
      std::vector<record_int64> ascending;
      for (const auto& [value, id] : expected) {
        ascending.push_back(id);
        EXPECT_EQ(ids(*table, harness::filtered(field.name, shown(value))),
                  std::vector<record_int64>{id});
      }
      db_query_cond cond = harness::page();
      cond.order_by = table->index_of(field);
      EXPECT_EQ(ids(*table, cond), ascending);
      cond.order_style = -7;
      EXPECT_EQ(ids(*table, cond), std::vector<record_int64>(ascending.rbegin(), ascending.rend()));
    }
  }
  EXPECT_EQ(daemon.stop(), 0);
}

TEST(Schema, EachTableDeletesAndCleansItsOwnRows) {
  {
    harness::Daemon daemon;
    for (const TableSchema* table : kFilled) {
      insert_all(*table);
    }
    for (const char* user : {"one", "two", "two", "three", "four", "five"}) {
      EXPECT_EQ(zorv_api::count_failure(user), KX_SUCCESS);
    }
    for (size_t i = 0; i < std::size(kFilled); ++i) {
      EXPECT_EQ(zorv_api::remove(*kFilled[i], static_cast<record_int64>(i + 1)), KX_SUCCESS);
    }
    EXPECT_EQ(zorv_api::forget_failures("five"), KX_SUCCESS);
    EXPECT_EQ(ids(zorv::kServerLog), (std::vector<record_int64>{2, 3, 4, 5}));
    EXPECT_EQ(ids(zorv::kClientLog), (std::vector<record_int64>{1, 3, 4, 5}));
    EXPECT_EQ(ids(zorv::kServerList), (std::vector<record_int64>{1, 2, 4, 5}));
    EXPECT_EQ(ids(zorv::kDeviceInfo), (std::vector<record_int64>{1, 2, 3, 5}));
    EXPECT_EQ(ids(zorv::kUserBlock), (std::vector<record_int64>{1, 2, 3, 4}));
    const zorv_api::Rows users = found(zorv::kUserBlock, harness::filtered("limit_count", "2"));
    ASSERT_EQ(users.count, 1U);
    EXPECT_STREQ(static_cast<const db_privilege_user_block_data*>(users.record(0))->username,
                 "two");
    db_query_cond latest_by_name = harness::page(2);
    latest_by_name.order_by = 1;
    EXPECT_EQ(ids(zorv::kUserBlock, latest_by_name), (std::vector<record_int64>{4, 1}));
    EXPECT_EQ(daemon.stop(), 0);
  }
  // The text that a delete left is gone with its daemon, and so are the temporary rows.
  harness::Daemon daemon;
  for (const TableSchema* table : {&zorv::kServerList, &zorv::kDeviceInfo}) {
    EXPECT_EQ(ids(*table), std::vector<record_int64>{});
    insert_all(*table);
  }
  size_t kept = 5;
  for (const TableSchema* table : {&zorv::kServerLog, &zorv::kClientLog, &zorv::kServerList,
                                   &zorv::kDeviceInfo, &zorv::kUserBlock}) {
    EXPECT_EQ(zorv_api::clean(*table), KX_SUCCESS);
    EXPECT_EQ(ids(*table), std::vector<record_int64>{});
    size_t with_rows = 0;
    for (const TableSchema* other : zorv::kTables) {
      with_rows += other->fields.empty() || ids(*other).empty() ? 0 : 1;
    }
    EXPECT_EQ(with_rows, --kept) << table->name;
  }
  EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
