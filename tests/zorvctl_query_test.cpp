// Paging over a table that answers as the daemon does, and changes or fails meanwhile.

#include <gtest/gtest.h>

#include <algorithm>

#include "block_state.h"
#include "record_query.h"

using namespace zorvctl;

namespace {

// The table: rows in id order, the time of each its id times ten.
std::vector<db_privilege_user_block_data> table;
int queries = 0;
int rows_added_per_query = 0;
int fail_from_query = -1;
bool table_unread = false;

void add_rows(size_t count) {
  for (size_t added = 0; added < count; ++added) {
    db_privilege_user_block_data row{};
    row.id = table.empty() ? 1 : table.back().id + 1;
    row.limit = static_cast<int>(row.id % 3);
    row.timestamp = static_cast<unsigned long long>(row.id) * 10;
    table.push_back(row);
  }
}

Page answer(db_query_cond& cond) {
  ++queries;
  Page page;
  if (fail_from_query >= 0 && queries > fail_from_query) {
    return page;
  }
  page.answered = true;
  page.record_size = sizeof(db_privilege_user_block_data);
  page.total = table_unread ? kTableUnread : table.size();
  std::vector<db_privilege_user_block_data> rows;
  for (const auto& row : table) {
    if (cond.field[0] == '\0' || std::to_string(row.limit) == cond.value) {
      rows.push_back(row);
    }
  }
  if (cond.order_style != 0) {
    std::reverse(rows.begin(), rows.end());
  }
  const size_t start = std::min(static_cast<size_t>(cond.start), rows.size());
  const size_t count = std::min(static_cast<size_t>(cond.count), rows.size() - start);
  page.count = count;
  page.records.reset(calloc(count + 1, page.record_size));
  std::copy_n(rows.data() + start, count,
              static_cast<db_privilege_user_block_data*>(page.records.get()));
  add_rows(static_cast<size_t>(rows_added_per_query));
  return page;
}

RecordKind fake_kind() {
  RecordKind kind = kBlock;
  kind.list = answer;
  return kind;
}

class Query : public testing::Test {
 protected:
  Query() {
    table.clear();
    queries = rows_added_per_query = 0;
    fail_from_query = -1;
    table_unread = false;
  }

  std::vector<long long> run(const RecordQuery& query) {
    const RecordKind kind = fake_kind();
    std::vector<long long> ids;
    QueryEvents events;
    events.on_record = [&](const void* record) {
      ids.push_back(static_cast<const db_privilege_user_block_data*>(record)->id);
    };
    events.on_page_end = [] {};
    events.on_wait = [](unsigned long long, unsigned long long) {};
    end_ = run_query(kind, query, events);
    return ids;
  }

  // "FIELD=NUMBER".
  static Filter number_filter(const char* name, long long number) {
    return {find_column(kBlock.columns, name), "", number};
  }

  QueryEnd end_ = QueryEnd::complete;
};

TEST_F(Query, TakesTheRowsThatLimitAndOffsetName) {
  add_rows(10);
  struct Window {
    unsigned long long limit, offset;
    bool descending;
    std::vector<long long> ids;
    QueryEnd end;
  };
  const Window windows[] = {
      {3, 0, true, {10, 9, 8}, QueryEnd::more},
      {3, 8, true, {2, 1}, QueryEnd::complete},
      {2, 8, true, {2, 1}, QueryEnd::complete},
      {0, 7, false, {8, 9, 10}, QueryEnd::complete},
      {10, 0, false, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, QueryEnd::complete},
      {1, 10, true, {}, QueryEnd::complete},
  };
  for (const Window& window : windows) {
    RecordQuery query;
    query.limit = window.limit;
    query.offset = window.offset;
    query.descending = window.descending;
    EXPECT_EQ(run(query), window.ids);
    EXPECT_EQ(end_, window.end);
    // The same rows when they are picked on this side, for a filter that the daemon cannot apply.
    query.since = 0;
    EXPECT_EQ(run(query), window.ids);
    EXPECT_EQ(end_, window.end);
  }
}

TEST_F(Query, ShowsEveryRowOnceWhileOthersAreAdded) {
  add_rows(7001);
  rows_added_per_query = 37;
  const auto ids = run({});
  ASSERT_EQ(ids.size(), 7001U);
  for (size_t index = 0; index < ids.size(); ++index) {
    ASSERT_EQ(ids[index], static_cast<long long>(7001 - index));
  }
  EXPECT_EQ(end_, QueryEnd::complete);
}

TEST_F(Query, AsksForNoMoreThanItNeeds) {
  add_rows(50000);
  RecordQuery query;
  query.limit = 10;
  EXPECT_EQ(run(query).size(), 10U);
  EXPECT_EQ(queries, 1);
}

TEST_F(Query, CombinesFiltersAndTimes) {
  add_rows(5000);
  RecordQuery query;
  query.filters = {number_filter("limit_count", 1), number_filter("id", 1000)};
  EXPECT_EQ(run(query), std::vector<long long>{1000});
  query.filters = {number_filter("limit_count", 2), number_filter("id", 1000)};
  EXPECT_EQ(run(query), std::vector<long long>{});
  query.filters = {number_filter("limit_count", 0)};
  query.since = 3000;
  query.until = 3060;  // both ends belong to it
  EXPECT_EQ(run(query), (std::vector<long long>{306, 303, 300}));
  query.limit = 1;
  query.offset = 1;
  EXPECT_EQ(run(query), std::vector<long long>{303});
  EXPECT_EQ(end_, QueryEnd::more);
}

TEST_F(Query, SendsAnEmptyTextToNobody) {
  // The daemon would take it for no filter at all.
  add_rows(3);
  std::snprintf(table[1].username, sizeof table[1].username, "bob");
  RecordQuery query;
  query.filters = {{find_column(kBlock.columns, "username"), "", Value()}};
  EXPECT_EQ(run(query), (std::vector<long long>{3, 1}));
}

TEST_F(Query, SaysWhenTheDaemonStopsAnswering) {
  add_rows(5000);
  fail_from_query = 1;
  EXPECT_FALSE(run({}).empty());
  EXPECT_EQ(end_, QueryEnd::unanswered);
  fail_from_query = -1;
  table_unread = true;
  run({});
  EXPECT_EQ(end_, QueryEnd::unread);
}

struct BlockCase {
  bool enabled;
  int limit;
  double minutes;
  int failures;
  unsigned long long timestamp;
  std::time_t now;
  BlockState state;
  unsigned long long left;
};

TEST(Blocks, FollowTheCheckOfTheDaemon) {
  const BlockCase cases[] = {
      {false, 3, 5, 9, 1000, 1000, BlockState::off, 0},
      {true, 3, 5, 2, 1000, 1000, BlockState::counting, 0},
      {true, 3, 5, 3, 1000, 1000, BlockState::blocked, 300},
      {true, 3, 5, 4, 1000, 1299, BlockState::blocked, 1},
      {true, 3, 5, 3, 1000, 1300, BlockState::over, 0},
      {true, 3, 0, 3, 1000, 1000, BlockState::over, 0},
      {true, 3, -1, 3, 1000, 1000, BlockState::over, 0},
      {true, 3, 0.05, 3, 1000, 1001, BlockState::blocked, 2},
      {true, 0, 5, 1, 1000, 1001, BlockState::blocked, 299},
      // Only 32 bits of the stored time count, and a clock set back prolongs the block.
      {true, 3, 5, 3, 4294967296ULL + 1000, 1001, BlockState::blocked, 299},
      {true, 3, 5, 3, 1000, 900, BlockState::blocked, 400},
      {true, 3, 5, 3, 2147483648ULL, 2147483649, BlockState::blocked, 299},
  };
  for (const BlockCase& one : cases) {
    db_privilege_user_block_data user{};
    user.limit = one.failures;
    user.timestamp = one.timestamp;
    const BlockVerdict verdict =
        block_verdict(user, zorv::LoginPolicy{one.enabled, one.limit, one.minutes}, one.now);
    EXPECT_EQ(verdict.state, one.state) << one.now;
    EXPECT_EQ(verdict.seconds_left, one.left) << one.now;
  }
  EXPECT_EQ(block_verdict({}, std::nullopt, 0).state, BlockState::unknown);
}

}  // namespace
