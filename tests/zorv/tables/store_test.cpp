// The store engine over a table of the test's own.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "harness/daemon.h"
#include "harness/test_root.h"
#include "zorvd_db_rows.h"

namespace {

using harness::sql;
using Record = db_privilege_user_block_data;
using Texts = std::vector<std::string>;

class StoreTest : public testing::Test {
 protected:
  void make(zorv::DeleteText delete_text = zorv::DeleteText::accumulates,
            zorv::Storage storage = zorv::Storage::persistent) {
    table_.reset();
    std::filesystem::remove(harness::test_root() + harness::kDatabase);
    std::filesystem::remove(harness::test_root() + harness::kLogFile);
    schema_ = zorv::kUserBlock;
    schema_.name = "probe";
    schema_.module = "probe";
    schema_.delete_text = delete_text;
    schema_.storage = storage;
    open();
  }

  void open() {
    table_ = std::make_unique<store::Table>(schema_);
    EXPECT_EQ(store::create(*table_), 0);
  }

  void insert(const std::vector<const char*>& names) {
    for (const char* name : names) {
      Record record{.id = 0, .username = "", .limit = 1, .timestamp = 2};
      zorv::copy_text(record.username, name);
      EXPECT_EQ(store::insert_record(*table_, &record), 0);
    }
  }

  std::vector<Record> select(const db_query_cond& cond = {0, -1, 0, 0, "", ""}, int expected = 0) {
    db_privilege_user_block_query query{};
    auto* out = &query;
    EXPECT_EQ(store::select_query(*table_, cond, &out), expected);
    std::vector<Record> rows(query.data, query.data + query.count);
    free(query.data);
    total_ = query.total;
    return rows;
  }

  record_uint64 total_ = 0;  // that came with the last page
  zorv::TableSchema schema_{};
  std::unique_ptr<store::Table> table_;
};

TEST_F(StoreTest, StatementsAndLogLinesOfAnInsertAndAPage) {
  make();
  insert({"o'brien"});
  ASSERT_EQ(select({0, 100001, 2, 5, "username", "o'brien"}).size(), 1U);
  store::finish(*table_);
  Texts texts = harness::log_texts("probe");
  EXPECT_TRUE(texts.front().starts_with("INFO db open 0x")) << texts.front();
  EXPECT_TRUE(texts.back().starts_with("WARN close db 0x")) << texts.back();
  texts.erase(texts.begin());
  texts.pop_back();
  const std::string page =
      "SELECT * FROM probe WHERE username = 'o''brien' AND id >= 1 ORDER BY limit_count DESC LIMIT "
      "100000 OFFSET 0;";
  const Texts expected{
      "DEBUG sqlite3_exec BEGIN TRANSACTION;",
      "DEBUG sqlite3_exec INSERT OR REPLACE INTO probe (username, limit_count, timestamp) VALUES "
      "('o''brien', 1, 2);",
      "DEBUG sqlite3_exec SELECT Count(*) FROM probe;",
      "DEBUG count = 1, rows[0] = 1",
      "DEBUG GET_TOTAL = 1",
      "DEBUG sqlite3_exec END TRANSACTION;",
      "INFO start = 0, count = 100001, order_by = 2 (limit_count), order_style = 5",
      "DEBUG count 100001 > maxium 100000, set count = 100000",
      "DEBUG sqlite3_exec SELECT id FROM (SELECT * FROM probe ORDER BY id DESC LIMIT 100000) "
      "ORDER BY id ASC LIMIT 1;",
      "DEBUG count = 1, rows[0] = 1",
      "DEBUG ID = 1",
      "INFO first_id = 1",
      "INFO select query = " + page,
      "INFO SELECT_STMT",
      "DEBUG sqlite3_exec " + page,
      "DEBUG sqlite3_exec SELECT Count(*) FROM probe;",
      "DEBUG count = 1, rows[0] = 1",
  };
  EXPECT_EQ(texts, expected);
}

TEST_F(StoreTest, FileAndConnectionAreAsTheyWereSetUp) {
  make();
  EXPECT_EQ(sql("SELECT sql FROM sqlite_master WHERE name = 'probe'"),
            Texts{"CREATE TABLE probe (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, "
                  "username TEXT, limit_count INTEGER, timestamp INTEGER)"});
  const auto append = [](void* user, int /*count*/, char** texts, char** /*names*/) {
    *static_cast<std::string*>(user) += texts[0] + std::string(" ");
    return 0;
  };
  constexpr const char* kSettings =
      "PRAGMA page_size; PRAGMA synchronous; PRAGMA journal_mode; PRAGMA cache_size";
  std::string settings;
  store::run(*table_, store::SqlText(sqlite3_mprintf(kSettings)), append, &settings);
  EXPECT_EQ(settings, "2048 1 off 10000 ");
}

TEST_F(StoreTest, The102000thRowRecycles2000AndPagesEndAtTheNewest100000) {
  make();
  harness::insert_rows("probe", 101998, "id, username", "i, 'user' || i");
  insert({"row 101999"});
  EXPECT_EQ(select({0, 1, 0, 0, "", ""}).at(0).id, 2000) << "no page reaches older rows";
  EXPECT_EQ(total_, 100000U);
  EXPECT_TRUE(harness::log_holds("total_count 101999 > maxium 100000, set total_count = 100000"));
  insert({"row 102000"});
  EXPECT_TRUE(harness::log_holds("Recycle, del 2000 rows"));
  EXPECT_EQ(sql("SELECT count(*), min(id), max(id) FROM probe"), Texts{"100000|2001|102000"});
}

TEST_F(StoreTest, PagesAreBoundedAndFiltersAreValuesNeverStatements) {
  const std::tuple<db_query_cond, int, record_uint64, std::string> cases[] = {
      {{0, 2, 0, 0, "", ""}, 0, 4, "12"},
      {{3, 10, 0, -7, "", ""}, 0, 4, "1"},
      {{0, 5, 4, 0, "", ""}, -1, 0, ""},
      {{0, -1, 0, 0, "username", "'; DROP TABLE probe; --%s%n"}, 0, 4, "3"},
      {{0, -1, 0, 0, "username", "ONE"}, 0, 4, ""},
      {{0, -1, 0, 0, "username", ""}, 0, 4, "1234"},
      {{0, -1, 0, 0, "none", "v"}, 0, ~0ULL, ""},
      {{0, -1, 0, 0, "id=1;--", "v"}, 0, ~0ULL, ""},
  };
  for (const auto& [cond, result, total, expected] : cases) {
    make(zorv::DeleteText::restored, zorv::Storage::temporary);
    insert({"one", "two", "'; DROP TABLE probe; --%s%n", "four"});
    std::string ids;
    for (const Record& row : select(cond, result)) {
      ids += std::to_string(row.id);
    }
    EXPECT_EQ(ids, expected) << cond.start << cond.field << cond.value;
    EXPECT_EQ(total_, total) << cond.field;
  }
}

TEST_F(StoreTest, DeleteTextsAccumulateOrAreRestored) {
  using enum zorv::DeleteText;
  // Of the steps a digit deletes that id, 'c' cleans.
  const std::tuple<zorv::DeleteText, std::string, Texts, bool> cases[] = {
      {accumulates, "23", {"1"}, true}, {accumulates, "2c", {"1", "3"}, false},
      {accumulates, "c2", {}, true},    {restored, "23", {"1"}, false},
      {restored, "2c2cc", {}, false},
  };
  for (const auto& [kind, steps, left, failed] : cases) {
    make(kind);
    insert({"one", "two", "three"});
    for (const char step : steps) {
      EXPECT_EQ(step == 'c' ? store::clean(*table_) : store::delete_row(*table_, step - '0'), 0);
    }
    EXPECT_EQ(sql("SELECT id FROM probe"), left) << steps;
    EXPECT_EQ(harness::log_holds("syntax error"), failed) << steps;
  }
}

TEST_F(StoreTest, RowsThatOthersWroteAreReadWithoutDamage) {
  make();
  sql("INSERT INTO probe VALUES (1, NULL, NULL, NULL)");
  sql("INSERT INTO probe VALUES (2, '" + std::string(3000, 'x') + "', 2147483653, -5)");
  sql("INSERT INTO probe VALUES (5000000000, x'ff00fe', ' -12x', 'seven')");
  const std::vector<Record> rows = select();
  ASSERT_EQ(rows.size(), 3U);
  EXPECT_STREQ(rows[0].username, "NULL");
  EXPECT_EQ(rows[0].limit, -1);
  EXPECT_EQ(strlen(rows[1].username), 1024U);
  EXPECT_EQ(rows[1].limit, INT32_MIN + 5) << "the low 32 bits";
  EXPECT_EQ(rows[1].timestamp, ~0ULL - 4);
  EXPECT_EQ(rows[2].id, INT32_MAX);
  EXPECT_STREQ(rows[2].username, "\xff");
  EXPECT_EQ(store::delete_row(*table_, 5000000000), 0);
  EXPECT_EQ(sql("SELECT id FROM probe"), (Texts{"1", "2"}));

  sql("DROP TABLE probe; CREATE TABLE probe (id INTEGER PRIMARY KEY, username)");
  sql("INSERT INTO probe VALUES (1, 'narrow')");
  open();
  EXPECT_EQ(select().at(0).limit, -1);

  struct Full final : store::RowSpace {
    void* next(size_t) override { return nullptr; }
  } no_space;
  store::RowCounts counts;
  EXPECT_EQ(store::select_rows(*table_, {0, -1, 0, 0, "", ""}, no_space, counts), -1);
}

}  // namespace
