// Pieces of a page of HTML. Whatever text comes in is text in the page, never markup.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zorv_records.h"

namespace zorvctl {

// As text between tags, or as an attribute's value between double quotes.
std::string html_text(std::string_view text);

// A name that came from outside: safe to show, not too long for a table.
std::string shown_name(std::string_view name);

struct Cell {
  std::string text;                   // not escaped yet
  std::optional<record_int64> value;  // of an amount: what a chart draws
};

struct TableRow {
  std::vector<Cell> cells;  // the first one names the row
  bool is_rest = false;     // sums up what has no row of its own
};

// In place of a table without rows.
inline constexpr const char* kNone = "<p class=\"none\">None.</p>";

// A table that scrolls by itself, labelled by the heading ID-title; a word where it has no rows.
std::string html_table(const char* id, const std::vector<const char*>& headings,
                       const std::vector<TableRow>& rows);

// The template with each {{name}} replaced; what is put in is not looked through again.
struct Part {
  std::string_view name;
  std::string html;
};
std::string filled(std::string_view page, const std::vector<Part>& parts);

}  // namespace zorvctl
