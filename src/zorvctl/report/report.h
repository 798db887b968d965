// What the report's page shows, counted. Memory is bounded by the users, sources and days that
// there are; lists of single sessions and users are cut.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "statistics.h"

namespace zorvctl {

struct BlockedUser {
  std::string username;
  int failures;
  uint64_t since;  // the last counted failure
  uint64_t seconds_left;
};

// The first ones of a list, and how many there are.
template <class Entry>
struct Firsts {
  static constexpr size_t kMost = 50;

  std::vector<Entry> shown;
  size_t count = 0;

  void add(Entry entry) {
    if (++count <= kMost) {
      shown.push_back(std::move(entry));
    }
  }
};

struct Report {
  std::string host;
  Window window;
  Zone zone = Zone::local;
  uint64_t now = 0;

  Totals all;
  Groups days, users, sources;
  std::array<std::array<record_int64, 7>, 24> begun{};  // sessions by hour, by weekday from Monday
  Firsts<Session> connected;                            // the newest first
  Firsts<BlockedUser> blocked;                          // who failed last first
  std::string blocked_remark;  // why nobody is, or could be known to be, blocked; may be empty

  void add(const Occasion& beginning, const Session& session);
  void add_failure(const Occasion& failure);
};

// Those with the most, and what is left of the others.
struct Ranking {
  std::vector<std::pair<std::string, Totals>> first;
  size_t others = 0;
  Totals rest;
};
using Amount = record_int64 (*)(const Totals& totals);
// Who has a negative amount is left out.
Ranking ranking(const Groups& groups, Amount amount);

// Day by day, the newest first, back to the window's beginning or the first day with a record, but
// no more than a year; the other days are the rest.
Ranking days_of(const Report& report);

// The whole page. `chart_library` is the text of Chart.js; without it, empty, the page has tables
// only and says so. `nonce` is for this page alone.
std::string report_page(const Report& report, const std::string& chart_library,
                        const std::string& nonce);

}  // namespace zorvctl
