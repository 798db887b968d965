// From the daemon's pages to lines: paging over a table that changes meanwhile, and records as
// tables, JSON and CSV, which must be read back as what was stored.
#include <gtest/gtest.h>
#include <jansson.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "display_text.h"
#include "harness/daemon.h"
#include "json_ref.h"
#include "record_query.h"
#include "record_writer.h"

using namespace zorvctl;

namespace {

using namespace std::string_literals;
using User = db_privilege_user_block_data;

// The daemon's table: rows in id order, the time of each its id times ten.
struct FakeTable {
  std::vector<User> rows;
  int queries = 0;
  size_t added_per_query = 0;
  int answered_queries = 1000;
  bool unread = false;

  void add(size_t count) {
    for (size_t added = 0; added < count; ++added) {
      User row{};
      row.id = rows.empty() ? 1 : rows.back().id + 1;
      row.limit = static_cast<int>(row.id % 3);
      row.timestamp = static_cast<unsigned long long>(row.id) * 10;
      rows.push_back(row);
    }
  }
};
FakeTable table;

Page answer(db_query_cond& cond) {
  Page page;
  if (++table.queries > table.answered_queries) {
    return page;
  }
  page.answered = true;
  page.record_size = sizeof(User);
  page.total = table.unread ? kTableUnread : table.rows.size();
  std::vector<User> rows;
  for (const User& row : table.rows) {
    if (cond.field[0] == '\0' || std::to_string(row.limit) == cond.value) {
      rows.push_back(row);
    }
  }
  if (cond.order_style != 0) {
    std::reverse(rows.begin(), rows.end());
  }
  const size_t start = std::min(static_cast<size_t>(cond.start), rows.size());
  page.count = std::min(static_cast<size_t>(cond.count), rows.size() - start);
  page.records.reset(calloc(static_cast<size_t>(page.count) + 1, page.record_size));
  std::copy_n(rows.data() + start, page.count, static_cast<User*>(page.records.get()));
  table.add(table.added_per_query);
  return page;
}

class Query : public testing::Test {
 protected:
  explicit Query() { table = {}; }

  std::vector<long long> run(const RecordQuery& query) {
    RecordKind kind = kBlock;
    kind.list = answer;
    std::vector<long long> ids;
    QueryEvents events;
    events.on_record = [&](const void* record) {
      ids.push_back(static_cast<const User*>(record)->id);
    };
    events.on_page_end = [] {};
    events.on_wait = [](unsigned long long, unsigned long long) {};
    end_ = run_query(kind, query, events);
    return ids;
  }

  static Filter number_filter(const char* name, long long number) {
    return {find_column(kBlock.columns, name), "", number};
  }

  QueryEnd end_ = QueryEnd::complete;
};

TEST_F(Query, TakesTheRowsThatLimitAndOffsetName) {
  table.add(10);
  const struct {
    unsigned long long limit, offset;
    bool descending;
    std::vector<long long> ids;
    QueryEnd end;
  } windows[] = {
      {3, 0, true, {10, 9, 8}, QueryEnd::more}, {3, 8, true, {2, 1}, QueryEnd::complete},
      {2, 8, true, {2, 1}, QueryEnd::complete}, {0, 7, false, {8, 9, 10}, QueryEnd::complete},
      {1, 10, true, {}, QueryEnd::complete},
  };
  for (const auto& window : windows) {
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
  table.add(7001);
  table.added_per_query = 37;
  const auto ids = run({});
  ASSERT_EQ(ids.size(), 7001U);
  for (size_t index = 0; index < ids.size(); ++index) {
    ASSERT_EQ(ids[index], static_cast<long long>(7001 - index));
  }
  table.queries = 0;
  RecordQuery query;
  query.limit = 10;
  EXPECT_EQ(run(query).size(), 10U);
  EXPECT_EQ(table.queries, 1) << "asks for no more than it needs";
}

TEST_F(Query, CombinesFiltersAndTimes) {
  table.add(5000);
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
  // The daemon would take an empty text for no filter at all.
  table = {};
  table.add(3);
  table.rows[1].username[0] = 'b';
  RecordQuery nameless;
  nameless.filters = {{find_column(kBlock.columns, "username"), "", Value()}};
  EXPECT_EQ(run(nameless), (std::vector<long long>{3, 1}));
}

TEST_F(Query, SaysWhenTheDaemonStopsAnswering) {
  table.add(5000);
  table.answered_queries = 1;
  EXPECT_FALSE(run({}).empty());
  EXPECT_EQ(end_, QueryEnd::unanswered);
  table.answered_queries = 1000;
  table.unread = true;
  run({});
  EXPECT_EQ(end_, QueryEnd::unread);
}

db_conn_server_log connection(const std::string& username) {
  db_conn_server_log record{};
  record.id = std::numeric_limits<long long>::max();
  username.copy(record.username, sizeof record.username - 1);
  record.vpn_type = std::numeric_limits<int>::min();
  record.action = 3;
  record.time = 1795234217;
  record.tx_total = std::numeric_limits<long long>::min();
  return record;
}

std::string every_byte() {
  std::string bytes;
  for (int byte = 1; byte < 256; ++byte) {
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

TEST(Json, IsValidAndExactWhateverARecordHolds) {
  for (const std::string& text :
       {""s, "\"quoted\" \\ back"s, "line\nbreak\ttab"s, "\x1b[31m"s, "\x7f\xC2\x9B"s,
        "Zo\xC3\xAB"s, "cut\xE2\x82"s, every_byte(), "\xE2\x80\xA8"s}) {
    db_conn_server_log record = connection(text);
    std::string out;
    make_json_writer(kServerLog.columns, &out)->add(&record);
    EXPECT_EQ(harness::lines_of(out).size(), 1U);
    EXPECT_EQ(out.find_first_of("\x1b\x7f"), std::string::npos) << "a terminal would obey this";
    const JsonRef row(json_loads(out.c_str(), 0, nullptr));
    ASSERT_NE(row, nullptr) << out;
    EXPECT_EQ(json_object_size(row.get()), kServerLog.columns.size());
    for (const auto& [name, number] : std::initializer_list<std::pair<const char*, long long>>{
             {"id", record.id}, {"vpn_type", record.vpn_type}, {"tx_total", record.tx_total}}) {
      EXPECT_EQ(json_integer_value(json_object_get(row.get(), name)), number);
    }
    // Every well-formed character comes back, every stray byte as one replacement.
    std::string expected;
    for (std::string_view rest = text; !rest.empty();) {
      const Character character = first_character(rest);
      expected += character.valid ? rest.substr(0, character.length) : "\xEF\xBF\xBD";
      rest.remove_prefix(character.length);
    }
    EXPECT_EQ(json_string_value(json_object_get(row.get(), "username")), expected);

    // Beyond what jansson reads, still as an integer.
    record.uptime = std::numeric_limits<unsigned long long>::max();
    make_json_writer(kServerLog.columns, &out)->add(&record);
    EXPECT_NE(out.find("\"uptime\": 18446744073709551615,"), std::string::npos) << out;
  }
}

// The fields of a line of RFC 4180: quotes doubled within quotes.
std::vector<std::string> csv_fields(std::string_view line) {
  std::vector<std::string> fields{""};
  bool quoted = false;
  for (size_t at = 0; at < line.size(); ++at) {
    if (quoted && line.substr(at, 2) == "\"\"") {
      fields.back() += line[++at];
    } else if (line[at] == '"') {
      quoted = !quoted;
    } else if (!quoted && line[at] == ',') {
      fields.emplace_back();
    } else {
      EXPECT_TRUE(quoted || (line[at] != '\r' && line[at] != '\n')) << "a bare CR or LF";
      fields.back() += line[at];
    }
  }
  return fields;
}

TEST(Csv, GivesEveryTextBackByteForByte) {
  std::string heading;
  make_csv_writer(kServerLog.columns, {}, &heading);
  EXPECT_TRUE(heading.starts_with("id,username,vpn_type,uptime,time,")) << heading;
  Style style;
  style.heading = false;
  for (const std::string text : {"alice", "", "a,b", "say \"hi\"", "line\nbreak", "line\r\nbreak",
                                 "\"", ",", "\xff\x1b[2J", " padded "}) {
    const db_conn_server_log record = connection(text);
    std::string out;
    make_csv_writer(kServerLog.columns, style, &out)->add(&record);
    ASSERT_TRUE(out.ends_with("\r\n"));
    const auto fields = csv_fields(std::string_view(out).substr(0, out.size() - 2));
    ASSERT_EQ(fields.size(), kServerLog.columns.size());
    EXPECT_EQ(fields[1], text);
    EXPECT_EQ(fields[4], "1795234217");
  }
  const db_conn_server_log record = connection("\x1b[2J,x");
  style.terminal = true;
  std::string out;
  make_csv_writer(kServerLog.columns, style, &out)->add(&record);
  EXPECT_NE(out.find(",\"\\x1b[2J,x\","), std::string::npos) << out;
}

TEST(Table, LinesUpUnderOneHeadingWhateverTheNamesHold) {
  std::string out;
  const auto writer = make_table_writer(
      kServerLog.columns, {{"STATE", false, [](const void*) { return "worked out"; }}}, {}, &out);
  for (const char* name : {"alice", "\xE6\x9D\xB1\xE4\xBA\xAC", "e\xCC\x81", "a\nb", "\xff", ""}) {
    const db_conn_server_log record = connection(name);
    writer->add(&record);
  }
  writer->end_page();
  const auto lines = harness::lines_of(out);
  ASSERT_EQ(lines.size(), 7U);
  const unsigned column = display_width(lines[0].substr(0, lines[0].find("STATE")));
  for (size_t line = 1; line < lines.size(); ++line) {
    EXPECT_EQ(display_width(lines[line].substr(0, lines[line].find("worked"))), column) << out;
  }
  const db_conn_server_log record = connection("second page");
  writer->add(&record);
  writer->end_page();
  EXPECT_EQ(harness::lines_of(out).size(), 8U) << "no second heading";
}

TEST(Table, CutsTextsOnlyWhereTheTerminalIsTooNarrow) {
  db_conn_server_log record{};
  record.time = 1795234217;
  memset(record.username, 'u', 30);
  memset(record.device_info, 'd', 300);
  for (const unsigned width : {0U, 500U, 160U, 140U}) {
    Style style;
    style.terminal = true;
    style.columns = width;
    std::string out;
    const auto writer = make_table_writer(kServerLog.columns, {}, style, &out);
    writer->add(&record);
    writer->end_page();
    const bool whole = out.find(std::string(300, 'd')) != std::string::npos;
    EXPECT_EQ(whole, width == 0 || width == 500) << width;
    EXPECT_NE(out.find("2026-11-2"), std::string::npos) << "only texts are cut";
    for (const std::string& line : harness::lines_of(out)) {
      EXPECT_TRUE(width == 0 || display_width(line) <= width) << line;
    }
  }
}

}  // namespace
