// The store engine over a table of the test's own.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "harness/daemon.h"
#include "harness/test_root.h"
#include "zorvd_db_rows.h"

namespace {

using zorv::DeleteText;
using zorv::Field;
using zorv::Meaning;
using zorv::Storage;
using Record = db_privilege_user_block_data;
using Query = db_privilege_user_block_query;

constexpr Field kFields[] = {
    zorv::field<&Record::id>("id", nullptr, Meaning::number),
    zorv::field<&Record::username>("username", nullptr, Meaning::text),
    zorv::wrapped(zorv::field<&Record::limit>("limit_count", nullptr, Meaning::number)),
    zorv::field<&Record::timestamp>("timestamp", nullptr, Meaning::time),
};

struct Page {
  int result;
  record_uint64 total;
  std::vector<record_int64> ids;
  std::vector<Record> rows;
};

class StoreTest : public testing::Test {
 protected:
  void make(Storage storage = Storage::persistent,
            DeleteText delete_text = DeleteText::accumulates) {
    table_.reset();
    std::filesystem::remove(harness::test_root() + harness::kDatabase);
    std::filesystem::remove(harness::test_root() + harness::kLogFile);
    open(storage, delete_text);
  }

  void open(Storage storage = Storage::persistent,
            DeleteText delete_text = DeleteText::accumulates) {
    schema_ = {.name = "probe",
               .module = "probe",
               .storage = storage,
               .delete_text = delete_text,
               .opened = true,
               .finished = true,
               .fields = kFields,
               .record_size = sizeof(Record),
               .methods = {},
               .noun = "",
               .plural = "",
               .description = ""};
    table_ = std::make_unique<store::Table>(schema_);
    EXPECT_EQ(store::create(*table_), 0);
  }

  void insert(const std::string& name, int limit = 1, record_uint64 time = 2) {
    Record record{};
    zorv::copy_text(record.username, name);
    record.limit = limit;
    record.timestamp = time;
    EXPECT_EQ(store::insert_record(*table_, &record), 0);
  }

  Page select(const db_query_cond& cond = {0, -1, 0, 0, "", ""}) {
    Query query{};
    Query* out = &query;
    Page page{store::select_query(*table_, cond, &out), query.total, {}, {}};
    page.rows.assign(query.data, query.data + query.count);
    free(query.data);
    for (const Record& row : page.rows) {
      page.ids.push_back(row.id);
    }
    return page;
  }

  zorv::TableSchema schema_{};
  std::unique_ptr<store::Table> table_;
};

TEST_F(StoreTest, StatementsAndLogLinesOfAnInsertAndAPage) {
  make();
  insert("o'brien");
  ASSERT_EQ(select({0, 100001, 2, 5, "username", "o'brien"}).rows.size(), 1U);
  store::finish(*table_);
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
  ASSERT_EQ(texts.back().rfind("WARN close db 0x", 0), 0U) << texts.back();
  texts.pop_back();
  EXPECT_EQ(texts, expected);
}

int append_text(void* user, int /*count*/, char** texts, char** /*names*/) {
  *static_cast<std::string*>(user) += texts[0];
  return 0;
}

TEST_F(StoreTest, FileAndConnectionAreAsTheyWereSetUp) {
  make();
  EXPECT_EQ(
      harness::sql("SELECT sql FROM sqlite_master WHERE name = 'probe'"),
      (std::vector<std::string>{"CREATE TABLE probe (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, "
                                "username TEXT, limit_count INTEGER, timestamp INTEGER)"}));
  std::string settings;
  for (const char* name :
       {"page_size", "auto_vacuum", "synchronous", "journal_mode", "cache_size"}) {
    settings += std::string(" ") + name + " ";
    store::run(*table_, store::SqlText(sqlite3_mprintf("PRAGMA %s;", name)), append_text,
               &settings);
  }
  EXPECT_EQ(settings,
            " page_size 2048 auto_vacuum 1 synchronous 1 journal_mode off cache_size 10000");
}

TEST_F(StoreTest, The102000thRowRecycles2000AndPagesEndAtTheNewest100000) {
  make();
  harness::insert_rows("probe", 101998, "id, username, limit_count", "i, 'user' || i, i % 7");
  insert("row 101999");
  EXPECT_EQ(harness::sql("SELECT count(*), min(id) FROM probe"),
            (std::vector<std::string>{"101999|1"}));
  Page page = select({0, 1, 0, 0, "", ""});
  EXPECT_EQ(page.total, 100000U);
  EXPECT_TRUE(harness::log_holds("total_count 101999 > maxium 100000, set total_count = 100000"));
  EXPECT_EQ(page.ids, std::vector<record_int64>{2000}) << "no page reaches older rows";
  // By id and not by when they came: this one is older than all.
  harness::sql("UPDATE probe SET id = -5 WHERE id = 101990");
  insert("row 102000");
  EXPECT_TRUE(harness::log_holds("Recycle, del 2000 rows"));
  EXPECT_EQ(harness::sql("SELECT count(*), min(id), max(id) FROM probe"),
            (std::vector<std::string>{"100000|2000|102000"}));
  page = select({99999, 3, 0, 0, "", ""});
  ASSERT_EQ(page.rows.size(), 1U);
  EXPECT_STREQ(page.rows[0].username, "row 102000");
  EXPECT_EQ(select().rows.size(), 100000U);
}

TEST_F(StoreTest, ATextWithoutEndIsEnded) {
  make();
  Record record{};
  memset(record.username, 'x', sizeof record.username);
  EXPECT_EQ(store::insert_record(*table_, &record), 0);
  EXPECT_EQ(harness::sql("SELECT length(username) FROM probe"), std::vector<std::string>{"1024"});
}

TEST_F(StoreTest, PageBounds) {
  make();
  for (int i = 1; i <= 5; ++i) {
    insert("user" + std::to_string(i), 10 - i);
  }
  struct Case {
    db_query_cond cond;
    int result;
    std::vector<record_int64> ids;
  };
  for (const Case& c : {
           Case{{0, 2, 0, 0, "", ""}, 0, {1, 2}},
           Case{{0, 2, 0, 1, "", ""}, 0, {5, 4}},
           Case{{3, 10, 0, -7, "", ""}, 0, {2, 1}},
           Case{{0, 2, 2, 0, "", ""}, 0, {5, 4}},
           Case{{0, 0, 0, 0, "", ""}, 0, {}},
           Case{{0, -1, 3, 0, "", ""}, 0, {1, 2, 3, 4, 5}},
           Case{{0, -5, 0, 0, "", ""}, 0, {1, 2, 3, 4, 5}},
           Case{{9, 5, 0, 0, "", ""}, 0, {}},
           Case{{-3, 1, 0, 0, "", ""}, 0, {1}},
           Case{{0, 5, 4, 0, "", ""}, -1, {}},
           Case{{0, 5, 1LL << 32, 0, "", ""}, -1, {}},
           Case{{0, 5, -1, 0, "", ""}, -1, {}},
       }) {
    const Page page = select(c.cond);
    EXPECT_EQ(page.result, c.result) << c.cond.order_by;
    EXPECT_EQ(page.ids, c.ids) << c.cond.start << " " << c.cond.count << " " << c.cond.order_by;
    EXPECT_EQ(page.total, c.result == 0 ? 5U : 0U);
  }
}

TEST_F(StoreTest, FiltersAreValuesNeverStatementsAndAWrongFieldLosesTheConnection) {
  make(Storage::temporary);
  insert("a'; DROP TABLE probe; --");
  insert("%s%n");
  for (const auto& [field, value, rows] :
       std::initializer_list<std::tuple<const char*, const char*, size_t>>{
           {"username", "a'; DROP TABLE probe; --", 1},
           {"username", "%s%n", 1},
           {"username", "A'; DROP TABLE PROBE; --", 0},
           {"username", "", 2},
           {"", "nobody", 2},
           {"limit_count", "1", 2},
           {"rowid", "2", 1}}) {
    db_query_cond cond{0, -1, 0, 0, "", ""};
    strcpy(cond.field, field);
    strcpy(cond.value, value);
    EXPECT_EQ(select(cond).rows.size(), rows) << field << "=" << value;
  }
  const std::string unterminated(sizeof db_query_cond{}.field, 'f');
  for (const std::string& field : {std::string("none"), std::string("a b"), std::string("id=1;--"),
                                   std::string("username IS NOT NULL OR username"), unterminated}) {
    make(Storage::temporary);
    insert("kept");
    db_query_cond cond{0, -1, 0, 0, "", ""};
    field.copy(cond.field, sizeof cond.field);
    memset(cond.value, 'v', sizeof cond.value);
    const Page page = select(cond);
    EXPECT_EQ(page.result, 0);
    EXPECT_EQ(page.total, ~0ULL) << "the temporary table went with its connection";
    const bool is_word = field.find_first_of(" =") == std::string::npos;
    EXPECT_EQ(harness::log_holds("sqlite3_exec SELECT * FROM probe WHERE"), is_word) << field;
    EXPECT_EQ(harness::log_holds("err = field is not a column name"), !is_word) << field;
    EXPECT_TRUE(harness::log_holds(field.substr(0, 1024) + " = '" + std::string(1024, 'v') +
                                   "' AND id >= 1 "));
  }
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
    make(Storage::persistent, c.kind);
    insert("one");
    insert("two");
    insert("three");
    for (const char* step = c.steps; *step != '\0'; ++step) {
      EXPECT_EQ(*step == 'c' ? store::clean(*table_) : store::delete_row(*table_, *step - '0'), 0);
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
  const std::vector<Record> rows = select().rows;
  ASSERT_EQ(rows.size(), 4U);
  EXPECT_STREQ(rows[0].username, "NULL");
  EXPECT_EQ(rows[0].limit, -1);
  EXPECT_EQ(rows[0].timestamp, ~0ULL);
  EXPECT_EQ(strlen(rows[1].username), 1024U);
  EXPECT_EQ(rows[1].limit, INT32_MIN + 5) << "the low 32 bits";
  EXPECT_EQ(rows[1].timestamp, static_cast<record_uint64>(-5));
  EXPECT_STREQ(rows[2].username, "12");
  EXPECT_EQ(rows[2].limit, 0);
  EXPECT_EQ(rows[3].id, INT32_MAX);
  EXPECT_STREQ(rows[3].username, "\xff");
  EXPECT_EQ(rows[3].limit, -12);

  EXPECT_EQ(store::delete_row(*table_, 5000000000), 0);
  EXPECT_EQ(harness::sql("SELECT id FROM probe"), (std::vector<std::string>{"1", "2", "3"}));

  table_.reset();
  harness::sql("DROP TABLE probe; CREATE TABLE probe (id INTEGER PRIMARY KEY, username TEXT)");
  harness::sql("INSERT INTO probe VALUES (1, 'narrow')");
  open();
  ASSERT_EQ(select().rows.size(), 1U);
  EXPECT_EQ(select().rows[0].limit, -1) << "a column that the file lacks reads as NULL";

  // The same number where the column is no wrapped one.
  Field fields[] = {kFields[0], kFields[1], kFields[2]};
  fields[2].type = zorv::FieldType::int32;
  schema_.fields = fields;
  char big[] = "2147483653";
  char id[] = "1";
  char* texts[] = {id, big, big};
  Record record{};
  store::read_row(schema_, 3, texts, &record);
  EXPECT_EQ(record.limit, INT32_MAX) << "saturates at 32 bits";
}

}  // namespace
