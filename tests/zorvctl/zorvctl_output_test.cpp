// From the daemon's pages to lines: paging over a table that changes meanwhile, and records as
// tables, JSON and CSV, which must be read back as what was stored.
#include <gtest/gtest.h>
#include <jansson.h>

#include <cstring>
#include <limits>
#include <numeric>

#include "daemon_answer.h"
#include "display_text.h"
#include "harness/daemon.h"
#include "json_ref.h"
#include "kxbus.h"
#include "record_query.h"
#include "record_writer.h"

using namespace zorvctl;
using zorv::kServerLog;
using zorv::kUserBlock;

namespace {

using namespace std::string_literals;
using Ids = std::vector<long long>;

class Query : public testing::Test {
 protected:
  Query() { add_users(7001); }

  void add_users(int last) {
    harness::insert_rows("privilege_user_block", last, "username", "'u' || i", last_ + 1);
    last_ = last;
  }

  // The ids of all users, with something happening between two pages.
  Ids run(const std::function<void()>& between_pages, unsigned long long limit = 0) {
    Ids ids;
    QueryEvents events;
    events.on_record = [&](const void* record) {
      ids.push_back(static_cast<const db_privilege_user_block_data*>(record)->id);
      return true;
    };
    events.on_wait = [&](unsigned long long, unsigned long long) { between_pages(); };
    RecordQuery query;
    query.limit = limit;
    status_ = run_query(kUserBlock, query, events, &result_);
    return ids;
  }

  harness::Daemon daemon_;
  int last_ = 0;
  int status_ = -2;
  QueryResult result_;
};

TEST_F(Query, ShowsEveryRowOnceWhileOthersAreAdded) {
  Ids all(7001);
  std::iota(all.rbegin(), all.rend(), 1);
  EXPECT_EQ(run([this] { add_users(last_ + 37); }), all);
  EXPECT_EQ(result_.total, 7001U + 3 * 37);
  EXPECT_EQ(run([] { FAIL() << "asks for more than it needs"; }, 10).size(), 10U);
}

TEST_F(Query, SaysWhenTheDaemonStopsAnswering) {
  EXPECT_EQ(run([] { harness::sql("DROP TABLE privilege_user_block"); }).size(), 2000U);
  EXPECT_EQ(status_, kTableNotRead);
  EXPECT_EQ(result_.total, 0U) << "untouched";
  daemon_.stop();
  EXPECT_EQ(run([] {}), Ids{});
  EXPECT_EQ(status_, KX_NOT_READY);
}

db_conn_server_log connection(std::string_view username) {
  db_conn_server_log record{};
  record.id = std::numeric_limits<long long>::max();
  zorv::copy_text(record.username, username);
  record.vpn_type = std::numeric_limits<int>::min();
  record.action = 3;
  record.time = 1795234217;
  record.tx_total = std::numeric_limits<long long>::min();
  return record;
}

std::string written(const char* format, const db_conn_server_log& record, Style style = {},
                    MakeComputed make_computed = nullptr) {
  std::string out;
  const auto writer =
      find_format(format)->make_writer({kServerLog.fields, make_computed, style}, &out);
  writer->add(&record);
  writer->end_page();
  return out;
}

TEST(Json, IsValidAndExactWhateverARecordHolds) {
  const std::pair<const char*, const char*> texts[] = {
      {"", ""},
      {"\"quoted\" \\ back", "\"quoted\" \\ back"},
      {"\n\t\r\x1b[2J\x7f\xC2\x9B", "\n\t\r\x1b[2J\x7f\xC2\x9B"},
      {"Zo\xC3\xAB\xE2\x80\xA8", "Zo\xC3\xAB\xE2\x80\xA8"},
      {"cut\xE2\x82", "cut\xEF\xBF\xBD\xEF\xBF\xBD"},  // a replacement for each stray byte
  };
  for (const auto& [text, read] : texts) {
    const db_conn_server_log record = connection(text);
    const std::string out = written("json", record);
    EXPECT_EQ(out.find_first_of("\x1b\x7f\n"), out.size() - 1) << "a terminal would obey this";
    const JsonRef row(json_loads(out.c_str(), 0, nullptr));
    ASSERT_NE(row, nullptr) << out;
    EXPECT_EQ(json_object_size(row.get()), kServerLog.fields.size());
    EXPECT_EQ(json_integer_value(json_object_get(row.get(), "id")), record.id);
    EXPECT_EQ(json_integer_value(json_object_get(row.get(), "tx_total")), record.tx_total);
    EXPECT_STREQ(json_string_value(json_object_get(row.get(), "username")), read);
  }
  db_conn_server_log endless{};
  endless.uptime = std::numeric_limits<unsigned long long>::max();  // beyond what jansson reads
  EXPECT_NE(written("json", endless).find("\"uptime\": 18446744073709551615,"), std::string::npos);
}

TEST(Csv, QuotesWhatNeedsIt) {
  const std::string heading =
      "id,username,vpn_type,uptime,time,device_info,source_ip,vpn_ip,tx_rate,rx_rate,tx_total,"
      "rx_total,outgoing,action\r\n";
  const std::pair<const char*, const char*> texts[] = {
      {"alice", "alice"},
      {"", ""},
      {"a,b", "\"a,b\""},
      {"say \"hi\"", "\"say \"\"hi\"\"\""},
      {"line\nbreak", "\"line\nbreak\""},
      {"carriage\rreturn", "\"carriage\rreturn\""},
      {"\"", "\"\"\"\""},
      {"\xff\x1b[2J", "\xff\x1b[2J"},
      {" padded ", " padded "},
  };
  for (const auto& [text, field] : texts) {
    EXPECT_EQ(written("csv", connection(text)),
              heading + "9223372036854775807," + field +
                  ",-2147483648,0,1795234217,,,,0,0,-9223372036854775808,0,,3\r\n");
  }
  const std::string shown = written("csv", connection("\x1b[2J\r,x"), {.terminal = true});
  EXPECT_NE(shown.find(",\"\\x1b[2J\\r,x\","), std::string::npos) << shown;
  EXPECT_EQ(written("csv", {}, {.heading = false}), "0,,0,0,0,,,,0,0,0,0,,0\r\n");
}

TEST(Table, LinesUpUnderOneHeadingWhateverTheNamesHold) {
  std::string out;
  const auto writer = find_format("table")->make_writer(
      {kUserBlock.fields,
       [] {
         return std::vector<ComputedColumn>{
             {"STATE", false, [](const void*) { return "worked out"; }},
             {"LEFT", true, [](const void*) { return "9 s"; }}};
       },
       {.zone = Zone::utc}},
      &out);
  for (const char* name : {"alice", "\xE6\x9D\xB1\xE4\xBA\xAC", "e\xCC\x81", "a\nb", "\xff"}) {
    db_privilege_user_block_data user{7, "", 12345, 9};
    zorv::copy_text(user.username, name);
    writer->add(&user);
  }
  writer->end_page();
  const db_privilege_user_block_data wider{1234567, "", 0, 0};
  writer->add(&wider);
  writer->end_page();
  EXPECT_EQ(out,
            "ID  USER   FAILURES  SINCE                 STATE       LEFT\n"
            " 7  alice     12345  1970-01-01 00:00:09Z  worked out   9 s\n"
            " 7  \xE6\x9D\xB1\xE4\xBA\xAC      12345  1970-01-01 00:00:09Z  worked out   9 s\n"
            " 7  e\xCC\x81         12345  1970-01-01 00:00:09Z  worked out   9 s\n"
            " 7  a\\nb      12345  1970-01-01 00:00:09Z  worked out   9 s\n"
            " 7  \\xff      12345  1970-01-01 00:00:09Z  worked out   9 s\n"
            "1234567                0  -                     worked out   9 s\n");
}

TEST(Table, CutsTextsOnlyWhereTheTerminalIsTooNarrow) {
  db_conn_server_log record{};
  record.time = 1795234217;
  record.uptime = 3;
  record.tx_total = 1;
  memset(record.username, 'u', 30);
  memset(record.device_info, 'd', 300);
  const Style utc{.zone = Zone::utc};
  const std::string whole = written("table", record, utc);
  EXPECT_EQ(written("table", record, {.zone = Zone::utc, .terminal = true, .columns = 500}), whole);
  EXPECT_EQ(written("table", record, {.zone = Zone::utc, .columns = 100}), whole) << "to a file";
  EXPECT_EQ(
      written("table", record, {.zone = Zone::utc, .terminal = true, .columns = 130}),
      "ID  USER              PROTOCOL  DURATION  TIME                  DEVICE            SOURCE  "
      "VPN IP  SENT  RECEIVED  OUTGOING  ACTION\n"
      " 0  uuuuuuuuuuuuuuu\xE2\x80\xA6  0              3 s  2026-11-21 04:10:17Z  "
      "ddddddddddddddd\xE2\x80\xA6                   1 B       0 B            0\n");
}

}  // namespace
