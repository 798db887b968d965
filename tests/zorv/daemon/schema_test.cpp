// The declaration of tables against the documentation, which stands by itself, and against the
// daemon: every column of every table there and back.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>

#include "harness/daemon.h"
#include "harness/records.h"
#include "zorv_calls.h"
#include "zorvd_db.h"

namespace {

using harness::filtered;
using zorv::Field;
using zorv::TableSchema;
using Ids = std::vector<record_int64>;

TEST(Documentation, NamesEveryColumnAtItsPlace) {
  std::ifstream file(ZORV_SOURCE "/docs/records.md");
  const std::string text(std::istreambuf_iterator<char>(file), {});
  alignas(8) char record[8000];
  for (const TableSchema* table : zorv::kTables) {
    size_t end = text.find(", " + std::to_string(table->record_size) + " bytes");
    for (const Field& field : table->fields) {
      const auto offset = static_cast<char*>(field.member(record)) - record;
      const std::string head =
          "\n| " + std::to_string(table->index_of(field)) + " | " + std::to_string(offset) + " | `";
      const size_t start = text.find(head, end);
      ASSERT_NE(start, std::string::npos) << table->name << head;
      end = text.find('\n', start + 1);
      const std::string row = text.substr(start, end - start);
      EXPECT_NE(row.find("`" + std::string(field.name) + "`"), std::string::npos) << row;
      for (const zorv::CodeWord& word : field.words) {
        EXPECT_NE(row.find(std::to_string(word.code) + " " + word.word), std::string::npos) << row;
      }
    }
    EXPECT_TRUE(table->fields.empty() || text.substr(end, 2) == "\n\n") << table->name;
  }
}

// Records, of which no two columns have the same order; the answer has more than one block.
constexpr int kRecords = 11;

std::shared_ptr<void> make_record(const TableSchema& table, int number) {
  const std::shared_ptr<void> record(std::calloc(1, table.record_size), std::free);
  for (const Field& field : table.fields) {
    const auto column = static_cast<int>(table.index_of(field));
    const int rank = (number * (column % 4 + 1) + column / 4 + 1) % kRecords;
    std::string text = static_cast<char>('a' + rank) + std::string("'%s\xc3\xa9\"\n;--");
    text.resize(std::max<size_t>(field.size, 1) - 1, static_cast<char>('A' + column));
    zorv::FieldValue value = text;
    if (field.type == zorv::FieldType::uint64) {
      value = (static_cast<record_uint64>(rank) << 40) + static_cast<record_uint64>(column);
    } else if (!field.is_text()) {
      value = (rank - 5) * (field.size == 4 ? 100000007 : (1LL << 40) + column);
    }
    zorv::set(field, record.get(), value);
  }
  return record;
}

zorv_api::Rows found(const TableSchema& table, const db_query_cond& cond = harness::page()) {
  zorv_api::Rows rows;
  EXPECT_EQ(zorv_api::query(table, cond, rows), KX_SUCCESS) << table.name;
  return rows;
}

Ids ids(const TableSchema& table, const db_query_cond& cond = harness::page()) {
  const zorv_api::Rows rows = found(table, cond);
  Ids ids;
  for (record_uint64 i = 0; i < rows.count; ++i) {
    ids.push_back(std::get<record_int64>(zorv::get(table.fields[0], rows.record(i))));
  }
  return ids;
}

// The tables that take whole records.
const TableSchema* const kFilled[] = {&zorv::kServerLog, &zorv::kClientLog, &zorv::kServerList,
                                      &zorv::kDeviceInfo};

void insert_all(const TableSchema& table) {
  EXPECT_EQ(ids(table), Ids{}) << table.name;
  for (int number = 0; number < kRecords; ++number) {
    EXPECT_EQ(zorv_api::insert(table, make_record(table, number).get()), KX_SUCCESS);
  }
}

TEST(Schema, EveryColumnOfEveryTableThereAndBack) {
  const auto shown = [](const auto& content) {
    std::ostringstream text;
    if constexpr (!std::is_same_v<std::decay_t<decltype(content)>, std::monostate>) {
      text << content;
    }
    return text.str();
  };
  harness::Daemon daemon;
  for (const TableSchema* table : kFilled) {
    insert_all(*table);
    const zorv_api::Rows rows = found(*table);
    ASSERT_EQ(rows.count, record_uint64{kRecords});
    for (const Field& field : table->fields) {
      SCOPED_TRACE(table->name + std::string(".") + field.name);
      std::vector<std::pair<zorv::FieldValue, record_int64>> sorted;
      for (int number = 0; number < kRecords; ++number) {
        const auto value = zorv::get(field, rows.record(static_cast<record_uint64>(number)));
        const std::shared_ptr<void> sent = make_record(*table, number);
        EXPECT_EQ(value == zorv::get(field, sent.get()), table->is_given(field)) << number;
        EXPECT_EQ(ids(*table, filtered(field.name, std::visit(shown, value))), Ids{number + 1});
        sorted.emplace_back(value, number + 1);
      }
      std::sort(sorted.begin(), sorted.end());
      Ids order;
      std::transform(sorted.begin(), sorted.end(), std::back_inserter(order),
                     [](const auto& row) { return row.second; });
      db_query_cond cond = harness::page();
      cond.order_by = table->index_of(field);
      EXPECT_EQ(ids(*table, cond), order);
      cond.order_style = -7;
      EXPECT_EQ(ids(*table, cond), Ids(order.rbegin(), order.rend()));
    }
  }
}

TEST(Schema, EachTableDeletesAndCleansItsOwnRows) {
  const TableSchema* const tables[] = {&zorv::kServerLog, &zorv::kClientLog, &zorv::kServerList,
                                       &zorv::kDeviceInfo, &zorv::kUserBlock};
  auto daemon = std::make_unique<harness::Daemon>();
  for (const TableSchema* table : kFilled) {
    insert_all(*table);
  }
  for (const char* user : {"one", "two", "two", "three"}) {
    EXPECT_EQ(zorv_api::count_failure(user), KX_SUCCESS);
  }
  for (size_t i = 0; i < std::size(kFilled); ++i) {
    const auto id = static_cast<record_int64>(i + 1);
    EXPECT_EQ(zorv_api::remove(*kFilled[i], id), KX_SUCCESS);
    EXPECT_EQ(ids(*kFilled[i], filtered("id", std::to_string(id))), Ids{});
  }
  EXPECT_EQ(zorv_api::forget_failures("three"), KX_SUCCESS);
  EXPECT_EQ(ids(zorv::kUserBlock, filtered("limit_count", "2")), Ids{2});
  EXPECT_EQ(zorv_api::remove(zorv::kDeviceInfo, 9), KX_SUCCESS);
  EXPECT_EQ(zorv_api::remove(zorv::kServerList, 9), KX_SUCCESS);
  std::vector<record_uint64> totals;
  std::transform(std::begin(tables), std::end(tables), std::back_inserter(totals),
                 [](const TableSchema* table) { return found(*table).total; });
  EXPECT_EQ(totals, (std::vector<record_uint64>{10, 10, zorv_api::kTableUnread, 9, 2}));
  // All of that is gone with its daemon, and so are the temporary rows.
  EXPECT_EQ(daemon->stop(), 0);
  daemon = std::make_unique<harness::Daemon>();
  insert_all(zorv::kServerList);
  insert_all(zorv::kDeviceInfo);
  for (const TableSchema* const& cleaned : tables) {
    EXPECT_EQ(zorv_api::clean(*cleaned), KX_SUCCESS);
    for (const TableSchema* const& table : tables) {
      EXPECT_EQ(ids(*table).empty(), &table <= &cleaned) << table->name << cleaned->name;
    }
  }
}

}  // namespace
