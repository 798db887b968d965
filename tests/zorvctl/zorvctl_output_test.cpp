// Paging over a table that changes meanwhile, and what only a terminal is shown.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <numeric>

#include "harness/daemon.h"
#include "record_query.h"
#include "record_writer.h"
#include "zorv_api_db.h"

using namespace zorvctl;

namespace {

using Ids = std::vector<long long>;

// The ids of all users, with something happening between two pages.
Ids ids_of(const std::function<void()>& between_pages, unsigned long long limit,
           QueryResult* ret_result) {
  Ids ids;
  QueryEvents events;
  events.on_record = [&](const void* record) {
    ids.push_back(static_cast<const db_privilege_user_block_data*>(record)->id);
    return true;
  };
  events.on_wait = [&](unsigned long long, unsigned long long) { between_pages(); };
  RecordQuery query;
  query.limit = limit;
  EXPECT_EQ(run_query(zorv::kUserBlock, query, events, ret_result), 0);
  return ids;
}

TEST(Query, ShowsEveryRowOnceWhateverHappensMeanwhile) {
  const harness::Daemon daemon;
  int last = 0;
  const auto add_users = [&last](int count) {
    harness::insert_rows("privilege_user_block", last + count, "username", "'u' || i", last + 1);
    last += count;
  };
  QueryResult result;
  add_users(7001);
  Ids all(7001);
  std::iota(all.rbegin(), all.rend(), 1);
  EXPECT_EQ(ids_of([&] { add_users(37); }, 0, &result), all);
  EXPECT_EQ(result.total, 7001U + 3 * 37);
  EXPECT_EQ(ids_of([] { FAIL() << "asks for more"; }, 10, &result).size(), 10U);
}

TEST(Terminal, CutsTextsThatAreTooWideAndObeysNone) {
  db_conn_server_log record{};
  memset(record.username, 'u', 30);
  memset(record.device_info, 'd', 300);
  const auto written = [&record](const char* format, const Style& style) {
    std::string out;
    const auto writer = find_format(format)->make_writer({zorv::kServerLog.fields, style}, &out);
    writer->add(&record);
    writer->end_page();
    return out;
  };
  const std::string whole = written("table", {});
  EXPECT_EQ(written("table", {.terminal = true, .columns = 500}), whole);
  EXPECT_EQ(written("table", {.columns = 100}), whole) << "to a file";
  EXPECT_EQ(written("table", {.terminal = true, .columns = 110}),
            "ID  USER            PROTOCOL  DURATION  TIME  DEVICE          SOURCE  VPN IP  SENT  "
            "RECEIVED  OUTGOING  ACTION\n"
            " 0  uuuuuuuuuuuuu\xE2\x80\xA6  0              0 s  -     "
            "ddddddddddddd\xE2\x80\xA6                   0 B       0 B            0\n");
  record = {};
  zorv::copy_text(record.username, "\x1b[2J\r,x");
  EXPECT_EQ(written("csv", {.heading = false, .terminal = true}),
            "0,\"\\x1b[2J\\r,x\",0,0,0,,,,0,0,0,0,,0\r\n");
}

}  // namespace
