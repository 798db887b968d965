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

// Users in id order: of each, the time is the id times ten and the failures are the id modulo 3.
void add_users(int last, int first = 1) {
  harness::insert_rows("privilege_user_block", last, "username, limit_count, timestamp",
                       "'u' || i, i % 3, i * 10", first);
}

class Query : public testing::Test {
 protected:
  Ids run(const RecordQuery& query) {
    Ids ids;
    QueryEvents events;
    events.on_record = [&](const void* record) {
      ids.push_back(static_cast<const db_privilege_user_block_data*>(record)->id);
      return ids.size() != stop_after_;
    };
    events.on_wait = [this](unsigned long long, unsigned long long) {
      ++pages_;
      between_pages_();
    };
    result_ = {};
    pages_ = 1;
    status_ = run_query(kUserBlock, query, events, &result_);
    return ids;
  }

  static Filter number_filter(const char* name, record_int64 number) {
    return {kUserBlock.find(name), "", number};
  }

  harness::Daemon daemon_;
  std::function<void()> between_pages_ = [] {};
  size_t stop_after_ = 0;
  int pages_ = 0;
  int status_ = -2;
  QueryResult result_;
};

TEST_F(Query, TakesTheRowsThatLimitAndOffsetName) {
  add_users(10);
  const struct {
    unsigned long long limit, offset;
    bool descending;
    Ids ids;
    bool more;
  } windows[] = {
      {3, 0, true, {10, 9, 8}, true},   {3, 7, true, {3, 2, 1}, false}, {3, 8, true, {2, 1}, false},
      {0, 7, false, {8, 9, 10}, false}, {1, 10, true, {}, false},
  };
  for (const auto& window : windows) {
    RecordQuery query;
    query.limit = window.limit;
    query.offset = window.offset;
    query.descending = window.descending;
    EXPECT_EQ(run(query), window.ids);
    EXPECT_EQ(result_.more, window.more);
    // The same rows when they are picked on this side, for a filter that the daemon cannot apply.
    query.since = 0;
    EXPECT_EQ(run(query), window.ids);
    EXPECT_EQ(result_.more, window.more);
    EXPECT_EQ(result_.total, 10U);
  }
  stop_after_ = 2;
  EXPECT_EQ(run({}), (Ids{10, 9}));
}

TEST_F(Query, ShowsEveryRowOnceWhileOthersAreAdded) {
  int last = 7001;
  add_users(last);
  between_pages_ = [&] {
    add_users(last + 37, last + 1);
    last += 37;
  };
  Ids all(7001);
  std::iota(all.rbegin(), all.rend(), 1);
  EXPECT_EQ(run({}), all);
  RecordQuery query;
  query.limit = 10;
  EXPECT_EQ(run(query).size(), 10U);
  EXPECT_EQ(pages_, 1) << "asks for no more than it needs";
}

TEST_F(Query, CombinesFiltersAndTimes) {
  add_users(5000);
  RecordQuery query;
  query.filters = {number_filter("limit_count", 1), number_filter("id", 1000)};
  EXPECT_EQ(run(query), Ids{1000});
  query.filters = {number_filter("limit_count", 2), number_filter("id", 1000)};
  EXPECT_EQ(run(query), Ids{});
  query.filters = {number_filter("limit_count", 0)};
  query.since = 43000;
  query.until = 43080;
  EXPECT_EQ(run(query), (Ids{4308, 4305, 4302}));
  EXPECT_EQ(pages_, 1) << "what follows is older";
  query.since = 43020;
  query.until = 43050;  // both ends belong to it
  EXPECT_EQ(run(query), (Ids{4305, 4302}));
  query.limit = 1;
  query.offset = 1;
  EXPECT_EQ(run(query), Ids{4302});
  EXPECT_FALSE(result_.more);
  // A clock that was set back: the times of old rows are new.
  harness::sql("UPDATE privilege_user_block SET timestamp = 43030 WHERE id IN (3, 4500)");
  query = {};
  query.since = 43029;
  query.until = 43040;
  EXPECT_EQ(run(query), (Ids{4500, 4304, 4303, 3}));
  query.descending = false;
  EXPECT_EQ(run(query), (Ids{3, 4303, 4304, 4500}));
  // The daemon would take an empty text for no filter at all.
  harness::sql("UPDATE privilege_user_block SET username = '' WHERE id = 77");
  query = {};
  query.filters = {{kUserBlock.find("username"), "", {}}};
  EXPECT_EQ(run(query), Ids{77});
}

TEST_F(Query, SaysWhenTheDaemonStopsAnswering) {
  add_users(5000);
  between_pages_ = [&] { harness::sql("DROP TABLE privilege_user_block"); };
  EXPECT_EQ(run({}).size(), 2000U);
  EXPECT_EQ(status_, kTableNotRead);
  EXPECT_EQ(result_.total, 0U) << "untouched";
  daemon_.stop();
  EXPECT_EQ(run({}), Ids{});
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
  std::string every_byte;
  for (int byte = 1; byte < 256; ++byte) {
    every_byte += static_cast<char>(byte);
  }
  for (const std::string& text : {""s, "\"quoted\" \\ back"s, "\x7f\xC2\x9B"s, "Zo\xC3\xAB"s,
                                  "cut\xE2\x82"s, every_byte, "\xE2\x80\xA8"s}) {
    db_conn_server_log record = connection(text);
    const std::string out = written("json", record);
    EXPECT_EQ(out.find_first_of("\x1b\x7f\n"), out.size() - 1) << "a terminal would obey this";
    const JsonRef row(json_loads(out.c_str(), 0, nullptr));
    ASSERT_NE(row, nullptr) << out;
    EXPECT_EQ(json_object_size(row.get()), kServerLog.fields.size());
    EXPECT_EQ(json_integer_value(json_object_get(row.get(), "id")), record.id);
    EXPECT_EQ(json_integer_value(json_object_get(row.get(), "tx_total")), record.tx_total);
    // Every well-formed character comes back, every stray byte as one replacement.
    std::string expected;
    for (std::string_view rest = text; !rest.empty();) {
      const Character character = first_character(rest);
      expected += character.valid ? rest.substr(0, character.length) : "\xEF\xBF\xBD";
      rest.remove_prefix(character.length);
    }
    EXPECT_EQ(json_string_value(json_object_get(row.get(), "username")), expected);
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
  memset(record.username, 'u', 30);
  memset(record.device_info, 'd', 300);
  const std::string whole = written("table", record);
  EXPECT_EQ(written("table", record, {.terminal = true, .columns = 500}), whole);
  EXPECT_EQ(written("table", record, {.columns = 100}), whole) << "to a file";
  for (const unsigned width : {160U, 140U}) {
    const std::string out = written("table", record, {.terminal = true, .columns = width});
    EXPECT_NE(out.find(" 2026-11-2"), std::string::npos) << "only texts are cut";
    EXPECT_NE(out.find("d\xE2\x80\xA6 "), std::string::npos) << out;
    EXPECT_EQ(display_width(harness::lines_of(out)[0]), width) << out;
  }
}

}  // namespace
