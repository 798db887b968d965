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

TEST(Terminal, ShowsARowOnALineAndObeysNoText) {
  setenv("TZ", "UTC", 1);
  db_conn_server_log record{};
  memset(record.username, 'u', 30);
  record.time = 1700000000;
  record.uptime = 3661;
  record.action = zorv::kLoginFail;
  zorv::copy_text(record.source_ip, "2001:db8:1234:5678:9abc:def0:1234:5678");
  const auto written = [&record](const char* format, const Style& style) {
    std::string out;
    const auto writer = find_format(format)->make_writer({zorv::kServerLog.fields, style}, &out);
    writer->add(&record);
    writer->end_page();
    return out;
  };
  const std::string whole = written("table", {.heading = false});
  EXPECT_EQ(whole,
            "2023-11-14 22:13:20  uuuuuuuuuuuuuuuuuuuuuuuuuuuuuu  Login Fail  0  "
            "2001:db8:1234:5678:9abc:def0:1234:5678    1 h 01 min  0 B  0 B\n");
  EXPECT_EQ(written("table", {.heading = false, .columns = 80}), whole) << "to a file";
  const std::pair<unsigned, const char*> lines[] = {
      {130,
       "2023-11-14 22:13:20  uuuuuuuuuuuuuuuuuuuuuuuuuuuuuu  Login Fail  0  "
       "2001:db8:1234:5678:9abc:def0:1234:5678    1 h 01 min  0 B  0 B\n"},
      {116,
       "2023-11-14 22:13:20  uuuuuuuuuuuuuuu\u2026  Login Fail  0  "
       "2001:db8:1234:5678:9abc:def0:1234:5678    1 h 01 min  0 B  0 B\n"},
      {98,
       "2023-11-14  uuuuuuuuuuuuuuu\u2026  Login Fail  0  "
       "2001:db8:1234:5678:9abc:def0:1234:5678    1h01m  0  0\n"},
      {72, "2023-11-14  uuuuuuu\u2026  Login Fail  2001:db8:1234:5678:9abc:def0:1234:5678\n"},
  };
  for (const auto& [columns, line] : lines) {
    EXPECT_EQ(written("table", {.heading = false, .terminal = true, .columns = columns}), line);
  }
  EXPECT_EQ(written("table", {.heading = false,
                              .terminal = true,
                              .columns = 1,
                              .utf8 = false,
                              .color = true,
                              .chosen = {"user", "action"}}),
            "uuuuuuu~  \x1b[31mLogin Fail\x1b[0m\n");
  record = {};
  zorv::copy_text(record.username, "\x1b[2J\r,x");
  EXPECT_EQ(written("csv", {.heading = false, .terminal = true}),
            "0,\"\\x1b[2J\\r,x\",0,0,0,,,,0,0,0,0,,0\r\n");
}

TEST(Terminal, SaysAnewWhichColumnsThereAre) {
  std::string out;
  const auto writer = find_format("table")->make_writer(
      {zorv::kServerLog.fields, {.terminal = true, .columns = 80}}, &out);
  db_conn_server_log record{};
  for (const char* source : {"::1", "::2", "2001:db8:1234:5678:9abc:def0:1234:5678", "::3"}) {
    zorv::copy_text(record.source_ip, source);
    writer->add(&record);
    writer->end_page();
  }
  std::string headings;
  for (const std::string& line : harness::lines_of(out)) {
    headings += line.starts_with("TIME") ? line.substr(line.rfind(' ') + 1) + "|" : ".";
  }
  EXPECT_EQ(headings, "RECEIVED|..VPN-IP|..");
}

}  // namespace
