#include "report.h"

#include <algorithm>

namespace zorvctl {

void Report::add(const Occasion& beginning, const Session& session) {
  constexpr int kDays = 7;
  all.add(session, now);
  days[day_of(beginning, zone)].add(session, now);
  users[user_of(beginning, zone)].add(session, now);
  sources[source_of(beginning, zone)].add(session, now);
  if (window.holds(session.start)) {
    const std::tm calendar = calendar_of(static_cast<time_t>(session.start), zone);
    const int weekday = (calendar.tm_wday + kDays - 1) % kDays;
    ++begun[static_cast<size_t>(calendar.tm_hour)][static_cast<size_t>(weekday)];
  }
  if (session.state == kConnected) {
    connected.add(session);
  }
}

void Report::add_failure(const Occasion& failure) {
  all.add_failure(failure.time);
  days[day_of(failure, zone)].add_failure(failure.time);
  users[user_of(failure, zone)].add_failure(failure.time);
  sources[source_of(failure, zone)].add_failure(failure.time);
}

Ranking ranking(const Groups& groups, Amount amount) {
  constexpr size_t kMost = 20;
  std::vector<const Groups::value_type*> ranked;
  for (const auto& group : groups) {
    if (amount(group.second) >= 0) {
      ranked.push_back(&group);
    }
  }
  std::stable_sort(ranked.begin(), ranked.end(), [amount](const auto* one, const auto* other) {
    return amount(one->second) > amount(other->second);
  });
  Ranking result;
  for (const auto* group : ranked) {
    if (result.first.size() < kMost) {
      result.first.emplace_back(std::get<std::string>(group->first), group->second);
    } else {
      ++result.others;
      result.rest.add(group->second);
    }
  }
  return result;
}

Ranking days_of(const Report& report) {
  constexpr int kMostDays = 366;
  Ranking result;
  if (!report.window.since && report.days.empty()) {
    return result;
  }
  const std::string first = report.window.since ? day_text(*report.window.since, report.zone)
                                                : std::get<std::string>(report.days.begin()->first);
  const uint64_t end = std::min<uint64_t>(report.window.until.value_or(report.now), report.now);
  Groups others = report.days;
  for (int back = 0; back < kMostDays; ++back) {
    std::tm noon = calendar_of(static_cast<time_t>(end), report.zone);
    noon.tm_hour = 12;
    noon.tm_mday -= back;
    noon.tm_isdst = -1;
    const time_t time = report.zone == Zone::utc ? timegm(&noon) : mktime(&noon);
    const std::string day = time > 0 ? day_text(static_cast<uint64_t>(time), report.zone) : "";
    if (day < first) {
      break;
    }
    const auto node = others.extract(day);
    result.first.emplace_back(day, node ? node.mapped() : Totals{});
  }
  result.others = others.size();
  for (const auto& other : others) {
    result.rest.add(other.second);
  }
  return result;
}

}  // namespace zorvctl
