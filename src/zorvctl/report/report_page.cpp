#include <fmt/format.h>

#include <algorithm>

#include "duration.h"
#include "html.h"
#include "page_files.h"
#include "report.h"
#include "value_text.h"

namespace zorvctl {
namespace {

Cell count_cell(record_int64 count) {
  return {fmt::to_string(count), count};
}
Cell bytes_cell(record_int64 bytes) {
  return {bytes_text(bytes), bytes};
}
Cell seconds_cell(uint64_t seconds) {
  return {duration_text(seconds), static_cast<record_int64>(seconds)};
}

// "others" is the word for those that have no row of their own: "12 other days".
std::vector<TableRow> rows_of(const Ranking& ranking, const char* others,
                              std::vector<Cell> (*cells)(const Totals& totals)) {
  std::vector<TableRow> rows;
  const auto add = [&](const std::string& name, const Totals& totals, bool is_rest) {
    TableRow row{{{name, std::nullopt}}, is_rest};
    for (Cell& cell : cells(totals)) {
      row.cells.push_back(std::move(cell));
    }
    rows.push_back(std::move(row));
  };
  for (const auto& [name, totals] : ranking.first) {
    add(shown_name(name), totals, false);
  }
  if (ranking.others > 0) {
    add(fmt::format("{} other {}", ranking.others, others), ranking.rest, true);
  }
  return rows;
}

std::vector<Cell> amounts(const Totals& totals) {
  return {count_cell(totals.sessions), count_cell(totals.failures), seconds_cell(totals.uptime),
          bytes_cell(totals.tx_total), bytes_cell(totals.rx_total)};
}

std::string days_table(const Report& report) {
  return html_table("days", {"Day", "Sessions", "Failed logins", "Connected", "Sent", "Received"},
                    rows_of(days_of(report), "days", amounts));
}

record_int64 traffic_of(const Totals& totals) {
  record_int64 sum = 0;
  return __builtin_add_overflow(totals.tx_total, totals.rx_total, &sum) ? totals.tx_total : sum;
}

std::string users_table(const Report& report) {
  const auto traffic = [](const Totals& totals) {
    return totals.sessions > 0 ? std::max<record_int64>(traffic_of(totals), 0) : -1;
  };
  return html_table("users", {"User", "Sessions", "Failed logins", "Connected", "Sent", "Received"},
                    rows_of(ranking(report.users, traffic), "users", amounts));
}

std::string sources_table(const Report& report) {
  const auto failures = [](const Totals& totals) {
    return totals.failures > 0 ? totals.failures : -1;
  };
  const auto cells = [](const Totals& totals) -> std::vector<Cell> {
    return {count_cell(totals.failures), count_cell(totals.sessions)};
  };
  return html_table("sources", {"Source", "Failed logins", "Sessions"},
                    rows_of(ranking(report.sources, failures), "sources", cells));
}

// The darker, the more. Not by numbers of the chart's library: it is there without it, too.
std::string hours_table(const Report& report) {
  constexpr record_int64 kShades = 5;
  if (report.all.sessions == 0) {
    return kNone;
  }
  record_int64 most = 1;
  for (const auto& hour : report.begun) {
    most = std::max(most, *std::max_element(hour.begin(), hour.end()));
  }
  std::string html =
      "<table class=\"hours\" aria-labelledby=\"hours-title\">\n<thead><tr><th "
      "scope=\"col\">Hour</th>";
  for (const char* day : {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"}) {
    html += fmt::format("<th scope=\"col\">{}</th>", day);
  }
  html += "</tr></thead>\n<tbody>\n";
  for (size_t hour = 0; hour < report.begun.size(); ++hour) {
    html += fmt::format("<tr><th scope=\"row\">{:02}:00</th>", hour);
    for (const record_int64 count : report.begun[hour]) {
      html += fmt::format("<td class=\"h{}\">{}</td>", (count * kShades + most - 1) / most, count);
    }
    html += "</tr>\n";
  }
  return html + "</tbody>\n</table>";
}

template <class Entry>
std::string more_remark(const Firsts<Entry>& list) {
  return list.count > list.shown.size()
             ? fmt::format("\n<p class=\"remark\">And {} more.</p>", list.count - list.shown.size())
             : "";
}

std::string blocked_table(const Report& report) {
  if (!report.blocked_remark.empty()) {
    return fmt::format("<p class=\"none\">{}</p>", html_text(report.blocked_remark));
  }
  std::vector<TableRow> rows;
  for (const BlockedUser& user : report.blocked.shown) {
    rows.push_back({{{shown_name(user.username), {}},
                     count_cell(user.failures),
                     {time_text(user.since, report.zone), {}},
                     seconds_cell(user.seconds_left)}});
  }
  return html_table("blocked", {"User", "Failed logins", "Last failure", "Left"}, rows) +
         more_remark(report.blocked);
}

std::string connected_table(const Report& report) {
  std::vector<TableRow> rows;
  for (const Session& session : report.connected.shown) {
    const char* const protocol = zorv::word_of(zorv::kServerProtocols, session.vpn_type);
    rows.push_back({{{shown_name(session.username), {}},
                     {protocol != nullptr ? protocol : fmt::to_string(session.vpn_type), {}},
                     {shown_name(session.source_ip), {}},
                     {shown_name(session.vpn_ip), {}},
                     {time_text(session.start, report.zone), {}},
                     seconds_cell(session.duration(report.now))}});
  }
  return html_table("open", {"User", "Protocol", "Source", "VPN IP", "Since", "Connected"}, rows) +
         more_remark(report.connected);
}

std::string sums(const Report& report) {
  const std::pair<const char*, std::string> kSums[] = {
      {"Sessions", fmt::to_string(report.all.sessions)},
      {"Failed logins", fmt::to_string(report.all.failures)},
      {"Users", fmt::to_string(report.users.size())},
      {"Time connected", duration_text(report.all.uptime)},
      {"Sent", bytes_text(report.all.tx_total)},
      {"Received", bytes_text(report.all.rx_total)},
      {"Still connected", fmt::to_string(report.connected.count)},
      {"Blocked now", report.blocked_remark.empty() ? fmt::to_string(report.blocked.count) : "-"},
  };
  std::string html;
  for (const auto& [name, sum] : kSums) {
    html += fmt::format("<div><dt>{}</dt><dd>{}</dd></div>", name, sum);
  }
  return html;
}

std::string window_text(const Report& report) {
  const auto& [since, until] = report.window;
  if (since && until) {
    return fmt::format("{} to {}", time_text(*since, report.zone), time_text(*until, report.zone));
  }
  if (since) {
    return "since " + time_text(*since, report.zone);
  }
  return until ? "up to " + time_text(*until, report.zone) : "all that is recorded";
}

std::string zone_text(const Report& report) {
  if (report.zone == Zone::utc) {
    return "in UTC";
  }
  return fmt::format("local ({})",
                     calendar_of(static_cast<time_t>(report.now), report.zone).tm_zone);
}

std::string scripts(const std::string& chart_library, const std::string& nonce) {
  std::string html;
  if (!chart_library.empty()) {
    for (const std::string_view script : {std::string_view(chart_library), kPageJs}) {
      html += fmt::format("<script nonce=\"{}\">\n{}</script>\n", nonce, script);
    }
  }
  return html;
}

}  // namespace

std::string report_page(const Report& report, const std::string& chart_library,
                        const std::string& nonce) {
  constexpr const char* kNoCharts =
      "<p class=\"notice\">Without charts: Chart.js (package libjs-chart.js) is not installed "
      "where "
      "this page was made.</p>\n";
  return filled(kPageHtml, {{"nonce", nonce},
                            {"host", html_text(shown_name(report.host))},
                            {"window", html_text(window_text(report))},
                            {"zone", html_text(zone_text(report))},
                            {"generated", time_text(report.now, report.zone)},
                            {"notice", chart_library.empty() ? kNoCharts : ""},
                            {"css", std::string(kPageCss)},
                            {"sums", sums(report)},
                            {"days", days_table(report)},
                            {"users", users_table(report)},
                            {"hours", hours_table(report)},
                            {"sources", sources_table(report)},
                            {"blocked", blocked_table(report)},
                            {"open", connected_table(report)},
                            {"scripts", scripts(chart_library, nonce)}});
}

}  // namespace zorvctl
