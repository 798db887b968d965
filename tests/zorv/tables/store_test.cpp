// The store engine over a table of the test's own, in a database file that is damaged, locked and
// filled in ways the running daemon would meet.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "harness/daemon.h"
#include "harness/test_root.h"
#include "zorvd_db_rows.h"

namespace {

using store::DeleteText;
using store::Storage;
using Record = db_privilege_user_block_data;
using Query = db_privilege_user_block_query;

LogModule log_module{"probe"};

constexpr std::tuple kColumns{
    store::column("username", "TEXT", "'%q'", &Record::username),
    store::column("limit_count", "INTEGER", "%d", &Record::limit),
    store::column("timestamp", "INTEGER", "%llu", &Record::timestamp),
};

struct Page {
  int result;
  record_uint64 total;
  std::vector<Record> rows;
};

class StoreTest : public testing::Test {
 protected:
  void make(Storage storage = Storage::persistent,
            DeleteText delete_text = DeleteText::accumulates) {
    traits_ =
        std::make_unique<store::TableTraits>(store::TableTraits{"probe", storage, delete_text});
    table_ = std::make_unique<store::Table>(log_module, *traits_);
    created_ = store::create(*table_, store::column_texts(kColumns));
  }

  void insert(const std::string& name, int limit = 1, record_uint64 time = 2) {
    Record record{};
    name.copy(record.username, sizeof record.username - 1);
    record.limit = limit;
    record.timestamp = time;
    store::insert_row(*table_, store::insert_statement(*table_, kColumns, record));
  }

  Page select(const db_query_cond& cond) {
    Query query{};
    Query* out = &query;
    Page page{store::select_records(*table_, kColumns, cond, &out), query.total, {}};
    page.rows.assign(query.data, query.data + query.count);
    free(query.data);
    return page;
  }

  Page all() {
    db_query_cond cond{};
    cond.count = -1;
    return select(cond);
  }

  std::unique_ptr<store::TableTraits> traits_;
  std::unique_ptr<store::Table> table_;
  int created_ = -2;
};

TEST_F(StoreTest, StatementsAndLogLinesOfAnInsertAndAPage) {
  make();
  ASSERT_EQ(created_, 0);
  insert("o'brien");
  db_query_cond cond{};
  cond.count = 100001;
  cond.order_by = 2;
  cond.order_style = 5;
  cond.start = 0;
  strcpy(cond.field, "username");
  strcpy(cond.value, "o'brien");
  ASSERT_EQ(select(cond).rows.size(), 1U);
  std::vector<std::string> texts = harness::log_texts("probe");
  ASSERT_EQ(texts[0].rfind("INFO db open 0x", 0), 0U) << texts[0];
  texts.erase(texts.begin());
  const std::vector<std::string> expected{
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
      "INFO select query = SELECT * FROM probe WHERE username = 'o''brien' AND id >= 1 ORDER BY "
      "limit_count DESC LIMIT 100000 OFFSET 0;",
      "INFO SELECT_STMT",
      "DEBUG sqlite3_exec SELECT * FROM probe WHERE username = 'o''brien' AND id >= 1 ORDER BY "
      "limit_count DESC LIMIT 100000 OFFSET 0;",
      "DEBUG sqlite3_exec SELECT Count(*) FROM probe;",
      "DEBUG count = 1, rows[0] = 1",
  };
  EXPECT_EQ(texts, expected);
}

TEST_F(StoreTest, The102000thRowRecycles2000AndPagesEndAtTheNewest100000) {
  make();
  harness::insert_rows("probe", 101998, "id, username, limit_count", "i, 'user' || i, i % 7");
  insert("row 101999");
  EXPECT_EQ(harness::sql("SELECT count(*), min(id) FROM probe"),
            (std::vector<std::string>{"101999|1"}));
  Page page = all();
  EXPECT_EQ(page.rows.size(), 100000U);
  EXPECT_EQ(page.total, 100000U);
  EXPECT_EQ(page.rows[0].id, 2000) << "no page reaches older rows";
  insert("row 102000");
  EXPECT_TRUE(harness::log_holds("Recycle, del 2000 rows"));
  EXPECT_EQ(harness::sql("SELECT count(*), min(id), max(id) FROM probe"),
            (std::vector<std::string>{"100000|2001|102000"}));
  db_query_cond cond{};
  cond.count = 3;
  cond.start = 99999;
  page = select(cond);
  ASSERT_EQ(page.rows.size(), 1U);
  EXPECT_STREQ(page.rows[0].username, "row 102000");
}

TEST_F(StoreTest, PageBounds) {
  make();
  for (int i = 1; i <= 5; ++i) {
    insert("user" + std::to_string(i), 10 - i);
  }
  struct Case {
    record_int64 start, count, order_by, order_style;
    int result;
    std::vector<record_int64> ids;
  };
  for (const Case& c : {
           Case{0, 2, 0, 0, 0, {1, 2}},
           Case{0, 2, 0, 1, 0, {5, 4}},
           Case{3, 10, 0, -7, 0, {2, 1}},
           Case{0, 2, 2, 0, 0, {5, 4}},
           Case{0, 0, 0, 0, 0, {}},
           Case{0, -1, 3, 0, 0, {1, 2, 3, 4, 5}},
           Case{0, -5, 0, 0, 0, {1, 2, 3, 4, 5}},
           Case{9, 5, 0, 0, 0, {}},
           Case{0, 5, 4, 0, -1, {}},
           Case{0, 5, 1LL << 40, 0, -1, {}},
           Case{0, 5, -1, 0, -1, {}},
       }) {
    db_query_cond cond{};
    cond.start = c.start;
    cond.count = c.count;
    cond.order_by = c.order_by;
    cond.order_style = c.order_style;
    const Page page = select(cond);
    std::vector<record_int64> ids;
    for (const Record& row : page.rows) {
      ids.push_back(row.id);
    }
    EXPECT_EQ(page.result, c.result) << c.order_by;
    EXPECT_EQ(ids, c.ids) << c.start << " " << c.count << " " << c.order_by;
    EXPECT_EQ(page.total, c.result == 0 ? 5U : 0U);
  }
}

TEST_F(StoreTest, FiltersAreValuesNeverStatements) {
  make(Storage::temporary);
  insert("a'; DROP TABLE probe; --");
  insert("%s%n");
  struct Case {
    const char* field;
    const char* value;
    size_t rows;
  };
  for (const Case& c : {
           Case{"username", "a'; DROP TABLE probe; --", 1},
           Case{"username", "%s%n", 1},
           Case{"username", "A'; DROP TABLE PROBE; --", 0},
           Case{"username", "", 2},
           Case{"", "nobody", 2},
           Case{"id=1;DROP TABLE probe;--", "x", 0},
           Case{"username IS NOT NULL OR username", "x", 0},
           Case{"limit_count", "1", 2},
           Case{"rowid", "2", 1},
       }) {
    db_query_cond cond{};
    cond.count = -1;
    strcpy(cond.field, c.field);
    strcpy(cond.value, c.value);
    EXPECT_EQ(select(cond).rows.size(), c.rows) << c.field << "=" << c.value;
  }
  EXPECT_EQ(all().rows.size(), 2U);
  EXPECT_TRUE(harness::log_holds("err = field is not a column name"));

  db_query_cond unterminated{};
  unterminated.count = -1;
  memset(unterminated.field, 'f', sizeof unterminated.field);
  memset(unterminated.value, 'v', sizeof unterminated.value);
  EXPECT_EQ(select(unterminated).rows.size(), 0U) << "no such column: the statement failed";
  EXPECT_EQ(all().rows.size(), 0U) << "and the temporary table went with its connection";
}

TEST_F(StoreTest, DeleteTextsAccumulateOrAreRestored) {
  struct Case {
    DeleteText kind;
    const char* steps;  // a digit deletes that id, 'c' cleans
    std::vector<std::string> left;
    bool failed;
  };
  for (const Case& c : {
           Case{DeleteText::accumulates, "2", {"1", "3"}, false},
           Case{DeleteText::accumulates, "c", {}, false},
           Case{DeleteText::accumulates, "23", {"1"}, true},
           Case{DeleteText::accumulates, "2c", {"1", "3"}, false},
           Case{DeleteText::accumulates, "c2", {}, true},
           Case{DeleteText::accumulates, "9c1", {"2", "3"}, true},
           Case{DeleteText::restored, "23", {"1"}, false},
           Case{DeleteText::restored, "2c2cc", {}, false},
       }) {
    std::filesystem::remove(harness::test_root() + harness::kDatabase);
    std::filesystem::remove(harness::test_root() + harness::kLogFile);
    make(Storage::persistent, c.kind);
    insert("one");
    insert("two");
    insert("three");
    for (const char* step = c.steps; *step != '\0'; ++step) {
      EXPECT_EQ(*step == 'c' ? store::clean(*table_)
                             : store::delete_row(*table_, static_cast<record_uint64>(*step - '0')),
                0);
    }
    EXPECT_EQ(harness::sql("SELECT id FROM probe"), c.left) << c.steps;
    EXPECT_EQ(harness::log_holds("syntax error"), c.failed) << c.steps;
  }
}

TEST_F(StoreTest, DeleteTextThatFillsItsBufferStaysBounded) {
  make();
  insert("kept");
  for (int i = 0; i < 600; ++i) {
    EXPECT_EQ(store::delete_row(*table_, 77), 0);
    EXPECT_EQ(store::clean(*table_), 0);
  }
  EXPECT_EQ(strlen(table_->__db_delete_str.c_str()), 4095U);
}

TEST_F(StoreTest, RowsThatOthersWroteAreReadWithoutDamage) {
  make();
  harness::sql("INSERT INTO probe VALUES (1, NULL, NULL, NULL)");
  harness::sql("INSERT INTO probe VALUES (2, '" + std::string(3000, 'x') + "', 2147483653, -5)");
  harness::sql("INSERT INTO probe VALUES (3, 12, 'seven', 99999999999999999999)");
  harness::sql("INSERT INTO probe VALUES (5000000000, x'ff00fe', ' -12x', '7')");
  const std::vector<Record> rows = all().rows;
  ASSERT_EQ(rows.size(), 4U);
  EXPECT_STREQ(rows[0].username, "NULL");
  EXPECT_EQ(rows[0].limit, -1);
  EXPECT_EQ(rows[0].timestamp, ~0ULL);
  EXPECT_EQ(strlen(rows[1].username), 1024U);
  EXPECT_EQ(rows[1].limit, INT32_MAX) << "numbers saturate at 32 bits";
  EXPECT_EQ(rows[1].timestamp, static_cast<record_uint64>(-5));
  EXPECT_STREQ(rows[2].username, "12");
  EXPECT_EQ(rows[2].limit, 0);
  EXPECT_EQ(rows[3].id, INT32_MAX);
  EXPECT_STREQ(rows[3].username, "\xff");
  EXPECT_EQ(rows[3].limit, -12);

  store::finish(*table_);
  std::filesystem::remove(harness::test_root() + harness::kDatabase);
  harness::sql("CREATE TABLE probe (id INTEGER PRIMARY KEY, username TEXT)");
  harness::sql("INSERT INTO probe VALUES (1, 'narrow')");
  make();
  ASSERT_EQ(all().rows.size(), 1U);
  EXPECT_EQ(all().rows[0].limit, -1) << "a column that the file lacks reads as NULL";
}

}  // namespace
