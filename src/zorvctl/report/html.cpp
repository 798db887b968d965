#include "html.h"

#include <fmt/format.h>

#include <algorithm>

#include "display_text.h"

namespace zorvctl {
namespace {

std::string cell_html(const Cell& cell, bool names_row) {
  const std::string text = html_text(cell.text);
  if (names_row) {
    return "<th scope=\"row\"><bdi>" + text + "</bdi></th>";
  }
  if (cell.value) {
    return fmt::format("<td class=\"amount\" data-value=\"{}\">{}</td>", *cell.value, text);
  }
  return "<td class=\"text\"><bdi>" + text + "</bdi></td>";
}

// An amount's heading stands over its numbers, on the right.
std::string heading_html(const char* heading, const Cell& below) {
  return fmt::format("<th scope=\"col\"{}>{}</th>", below.value ? " class=\"amount\"" : "",
                     heading);
}

}  // namespace

std::string html_text(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      case '\'':
        result += "&#39;";
        break;
      default:
        result += c;
    }
  }
  return result;
}

std::string shown_name(std::string_view name) {
  constexpr size_t kWidest = 64;  // columns
  std::string text = display_text(name);
  if (display_width(text) > kWidest) {
    text = std::string(front_of_columns(text, kWidest - 1)) + "\xE2\x80\xA6";
  }
  return text.empty() ? "(none)" : text;
}

std::string html_table(const char* id, const std::vector<const char*>& headings,
                       const std::vector<TableRow>& rows) {
  if (rows.empty()) {
    return kNone;
  }
  std::string html = fmt::format(
      "<div class=\"scroll\" role=\"region\" tabindex=\"0\" aria-labelledby=\"{0}-title\">\n"
      "<table id=\"{0}\" aria-labelledby=\"{0}-title\">\n<thead><tr>",
      id);
  for (size_t column = 0; column < headings.size(); ++column) {
    html += heading_html(headings[column], rows.front().cells[column]);
  }
  html += "</tr></thead>\n<tbody>\n";
  for (const TableRow& row : rows) {
    html += row.is_rest ? "<tr class=\"rest\">" : "<tr>";
    for (const Cell& cell : row.cells) {
      html += cell_html(cell, &cell == &row.cells.front());
    }
    html += "</tr>\n";
  }
  return html + "</tbody>\n</table>\n</div>";
}

std::string filled(std::string_view page, const std::vector<Part>& parts) {
  constexpr std::string_view kOpen = "{{";
  constexpr std::string_view kClose = "}}";
  std::string result;
  for (size_t open = page.find(kOpen); open != std::string_view::npos; open = page.find(kOpen)) {
    const size_t close = page.find(kClose, open);
    const std::string_view name = page.substr(open + kOpen.size(), close - open - kOpen.size());
    const auto part = std::find_if(parts.begin(), parts.end(),
                                   [name](const Part& one) { return one.name == name; });
    result += page.substr(0, open);
    result += part != parts.end() ? part->html : "";
    page.remove_prefix(close + kClose.size());
  }
  return result.append(page);
}

}  // namespace zorvctl
