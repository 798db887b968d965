// Records as tables, JSON and CSV: what is written must be read back as what was stored.

#include <gtest/gtest.h>
#include <jansson.h>

#include <limits>

#include "display_text.h"
#include "record_kind.h"
#include "record_writer.h"

using namespace zorvctl;

namespace {

db_conn_server_log connection(const char* username) {
  db_conn_server_log record{};
  record.id = 7;
  snprintf(record.username, sizeof record.username, "%s", username);
  record.vpn_type = 4;
  record.action = 3;
  record.time = 1795234217;
  return record;
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  EXPECT_EQ(start, text.size()) << "the last line is not ended";
  return lines;
}

TEST(Json, CarriesEveryNumberExactly) {
  db_conn_server_log record = connection("alice");
  record.id = std::numeric_limits<long long>::max();
  record.vpn_type = std::numeric_limits<int>::min();
  record.tx_total = std::numeric_limits<long long>::min();
  std::string out;
  make_json_writer(kServerLog.columns, &out)->add(&record);
  json_t* row = json_loads(out.c_str(), 0, nullptr);
  ASSERT_NE(row, nullptr) << out;
  EXPECT_EQ(json_object_size(row), kServerLog.columns.size());
  EXPECT_EQ(json_integer_value(json_object_get(row, "id")), record.id);
  EXPECT_EQ(json_integer_value(json_object_get(row, "vpn_type")), record.vpn_type);
  EXPECT_EQ(json_integer_value(json_object_get(row, "tx_total")), record.tx_total);
  EXPECT_STREQ(json_string_value(json_object_get(row, "username")), "alice");
  json_decref(row);

  // Beyond what jansson reads, still as an integer.
  record.uptime = std::numeric_limits<unsigned long long>::max();
  out.clear();
  make_json_writer(kServerLog.columns, &out)->add(&record);
  EXPECT_NE(out.find("\"uptime\": 18446744073709551615,"), std::string::npos) << out;
}

TEST(Json, IsValidWhateverATextHolds) {
  std::string every_byte;
  for (int byte = 1; byte < 256; ++byte) {
    every_byte += static_cast<char>(byte);
  }
  const std::string cases[] = {
      "",           "\"quoted\" \\ back", "line\nbreak\ttab", "\x1b[31m", "\x7f\xC2\x9B",
      "Zo\xC3\xAB", "\xff\xfe",           "cut\xE2\x82",      every_byte, "\xE2\x80\xA8",
  };
  for (const std::string& text : cases) {
    const db_conn_server_log record = connection(text.c_str());
    std::string out;
    make_json_writer(kServerLog.columns, &out)->add(&record);
    EXPECT_EQ(lines_of(out).size(), 1U);
    EXPECT_EQ(out.find_first_of("\x1b\x7f"), std::string::npos) << "a terminal would obey this";
    json_error_t error;
    json_t* row = json_loads(out.c_str(), 0, &error);
    ASSERT_NE(row, nullptr) << error.text << out;
    // Every well-formed character comes back, every stray byte as one replacement.
    std::string expected;
    std::string_view rest = text;
    while (!rest.empty()) {
      const Character character = first_character(rest);
      expected += character.valid ? rest.substr(0, character.length) : "\xEF\xBF\xBD";
      rest.remove_prefix(character.length);
    }
    EXPECT_EQ(json_string_value(json_object_get(row, "username")), expected);
    json_decref(row);
  }
}

// A reader of RFC 4180 of its own, strict: CR LF between lines, quotes doubled within quotes.
std::vector<std::vector<std::string>> read_csv(const std::string& text) {
  std::vector<std::vector<std::string>> rows(1, {""});
  bool quoted = false;
  for (size_t at = 0; at < text.size(); ++at) {
    std::string& field = rows.back().back();
    if (quoted && text[at] == '"' && at + 1 < text.size() && text[at + 1] == '"') {
      field += text[++at];
    } else if (text[at] == '"') {
      quoted = !quoted;
    } else if (quoted) {
      field += text[at];
    } else if (text[at] == ',') {
      rows.back().emplace_back();
    } else if (text.compare(at, 2, "\r\n") == 0) {
      ++at;
      rows.push_back({""});
    } else {
      EXPECT_EQ(std::string("\r\n").find(text[at]), std::string::npos) << "a bare CR or LF";
      field += text[at];
    }
  }
  EXPECT_EQ(rows.back(), std::vector<std::string>{""}) << "the last line is not ended";
  rows.pop_back();
  return rows;
}

TEST(Csv, GivesEveryTextBackByteForByte) {
  for (const char* text : {"alice", "", "a,b", "say \"hi\"", "line\nbreak", "line\r\nbreak", "\"",
                           ",", "\xff\x1b[2J", " padded "}) {
    const db_conn_server_log record = connection(text);
    std::string out;
    make_csv_writer(kServerLog.columns, {}, &out)->add(&record);
    const auto rows = read_csv(out);
    ASSERT_EQ(rows.size(), 2U) << out;
    ASSERT_EQ(rows[0].size(), kServerLog.columns.size());
    ASSERT_EQ(rows[1].size(), kServerLog.columns.size());
    EXPECT_EQ(rows[0][1], "username");
    EXPECT_EQ(rows[1][1], text);
    EXPECT_EQ(rows[1][4], "1795234217");
  }
}

TEST(Csv, IsHarmlessOnATerminalAndCanGoWithoutHeading) {
  const db_conn_server_log record = connection("\x1b[2J,x");
  Style style;
  style.terminal = true;
  style.heading = false;
  std::string out;
  make_csv_writer(kServerLog.columns, style, &out)->add(&record);
  EXPECT_EQ(out.find('\x1b'), std::string::npos);
  ASSERT_EQ(read_csv(out).size(), 1U);
  EXPECT_EQ(read_csv(out)[0][1], "\\x1b[2J,x");
}

// Where the last column begins in each line of a table, in terminal columns.
std::vector<unsigned> action_columns(const std::string& table) {
  std::vector<unsigned> columns;
  for (const std::string& line : lines_of(table)) {
    const size_t at = std::min(line.find("ACTION"), line.find("Logout"));
    columns.push_back(display_width(line.substr(0, at)));
  }
  return columns;
}

TEST(Table, LinesUpWhateverTheNamesHold) {
  std::string out;
  const auto table = make_table_writer(kServerLog.columns, {}, {}, &out);
  for (const char* name : {"alice", "\xE6\x9D\xB1\xE4\xBA\xAC", "e\xCC\x81", "a\nb", "\xff", ""}) {
    const db_conn_server_log record = connection(name);
    table->add(&record);
  }
  table->end_page();
  const auto columns = action_columns(out);
  ASSERT_EQ(columns.size(), 7U);
  for (const unsigned column : columns) {
    EXPECT_EQ(column, columns[0]) << out;
  }
}

TEST(Table, HasOneHeadingHoweverManyPages) {
  std::string out;
  const auto table = make_table_writer(kServerLog.columns, {}, {}, &out);
  for (int page = 0; page < 3; ++page) {
    const db_conn_server_log record = connection("alice");
    table->add(&record);
    table->end_page();
  }
  const auto lines = lines_of(out);
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_NE(lines[0].find("USER"), std::string::npos);
  EXPECT_EQ(lines[1], lines[3]);
}

TEST(Table, CutsTextsOnlyWhereTheTerminalIsTooNarrow) {
  db_conn_server_log record = connection("a-rather-long-user-name-indeed");
  snprintf(record.device_info, sizeof record.device_info, "%s", std::string(300, 'd').c_str());
  for (const unsigned width : {0U, 500U, 160U, 140U}) {
    Style style;
    style.terminal = true;
    style.columns = width;
    std::string out;
    const auto table = make_table_writer(kServerLog.columns, {}, style, &out);
    table->add(&record);
    table->end_page();
    const bool whole = out.find(std::string(300, 'd')) != std::string::npos;
    EXPECT_EQ(whole, width == 0 || width == 500) << width;
    EXPECT_NE(out.find("2026-11-2"), std::string::npos) << "only texts are cut";
    for (const std::string& line : lines_of(out)) {
      if (width != 0) {
        EXPECT_LE(display_width(line), width) << line;
      }
    }
  }
}

TEST(Table, ShowsColumnsThatAreWorkedOut) {
  std::string out;
  const auto table = make_table_writer(
      kBlock.columns,
      {{"STATE", false,
        [](const void* record) {
          return static_cast<const db_privilege_user_block_data*>(record)->limit > 2 ? "blocked"
                                                                                     : "counting";
        }}},
      {}, &out);
  for (const int failures : {2, 3}) {
    db_privilege_user_block_data user{};
    user.limit = failures;
    table->add(&user);
  }
  table->end_page();
  const auto lines = lines_of(out);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_TRUE(lines[0].ends_with("STATE"));
  EXPECT_TRUE(lines[1].ends_with("counting"));
  EXPECT_TRUE(lines[2].ends_with("blocked"));
}

}  // namespace
