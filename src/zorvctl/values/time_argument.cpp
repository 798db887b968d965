#include "time_argument.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <optional>

#include "duration.h"
#include "whole_number.h"

namespace zorvctl {
namespace {

constexpr unsigned long long kLatestShown = 253402300799;  // the last second of the year 9999

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// Takes a number of exactly `digits` digits from the front of `text`.
std::optional<int> take_digits(std::string_view& text, size_t digits) {
  if (text.size() < digits ||
      !std::all_of(text.begin(), text.begin() + static_cast<long>(digits), is_digit)) {
    return std::nullopt;
  }
  int number = 0;
  std::from_chars(text.data(), text.data() + digits, number);
  text.remove_prefix(digits);
  return number;
}

bool take(std::string_view& text, char c) {
  if (text.empty() || text.front() != c) {
    return false;
  }
  text.remove_prefix(1);
  return true;
}

// "HH:MM" or "HH:MM:SS" from the front of `text`.
bool take_clock(std::string_view& text, std::tm& ret) {
  std::string_view rest = text;
  const auto hour = take_digits(rest, 2);
  if (!hour || !take(rest, ':')) {
    return false;
  }
  const auto minute = take_digits(rest, 2);
  std::optional<int> second = 0;
  if (take(rest, ':')) {
    second = take_digits(rest, 2);
  }
  if (!minute || !second || *hour > 23 || *minute > 59 || *second > 59) {
    return false;
  }
  ret.tm_hour = *hour;
  ret.tm_min = *minute;
  ret.tm_sec = *second;
  text = rest;
  return true;
}

// "YYYY-MM-DD" from the front of `text`.
bool take_date(std::string_view& text, std::tm& ret) {
  std::string_view rest = text;
  const auto year = take_digits(rest, 4);
  if (!year || !take(rest, '-')) {
    return false;
  }
  const auto month = take_digits(rest, 2);
  if (!month || !take(rest, '-')) {
    return false;
  }
  const auto day = take_digits(rest, 2);
  if (!day) {
    return false;
  }
  ret.tm_year = *year - 1900;
  ret.tm_mon = *month - 1;
  ret.tm_mday = *day;
  text = rest;
  return true;
}

// "Z", "+HH:MM", "+HHMM" or "+HH", the whole of `text`: seconds east of UTC.
std::optional<long long> zone_offset(std::string_view text) {
  if (text == "Z" || text == "z") {
    return 0;
  }
  const bool west = !text.empty() && text.front() == '-';
  if (!west && (text.empty() || text.front() != '+')) {
    return std::nullopt;
  }
  text.remove_prefix(1);
  const auto hours = take_digits(text, 2);
  take(text, ':');
  const auto minutes = text.empty() ? std::optional(0) : take_digits(text, 2);
  if (!hours || !minutes || !text.empty() || *hours > 14 || *minutes > 59) {
    return std::nullopt;
  }
  const long long seconds = *hours * 3600LL + *minutes * 60LL;
  return west ? -seconds : seconds;
}

// The moment of a calendar time; nothing for a day that does not exist.
std::optional<long long> moment(const std::tm& calendar, Zone zone) {
  std::tm normal = calendar;
  normal.tm_isdst = -1;
  const time_t seconds = zone == Zone::utc ? timegm(&normal) : mktime(&normal);
  if (normal.tm_year != calendar.tm_year || normal.tm_mon != calendar.tm_mon ||
      normal.tm_mday != calendar.tm_mday) {
    return std::nullopt;
  }
  return seconds;
}

std::tm calendar_of(time_t seconds, Zone zone) {
  std::tm calendar{};
  if (zone == Zone::utc) {
    gmtime_r(&seconds, &calendar);
  } else {
    localtime_r(&seconds, &calendar);
  }
  return calendar;
}

std::optional<long long> calendar_moment(std::string_view text, time_t now, Zone zone) {
  const std::tm today = calendar_of(now, zone);
  std::tm calendar{};
  calendar.tm_year = today.tm_year;
  calendar.tm_mon = today.tm_mon;
  calendar.tm_mday = today.tm_mday;
  if (take_date(text, calendar)) {
    if (!text.empty() && (take(text, 'T') || take(text, ' ')) && !take_clock(text, calendar)) {
      return std::nullopt;
    }
  } else if (!take_clock(text, calendar)) {
    return std::nullopt;
  }
  take(text, ' ');
  if (text.empty()) {
    return moment(calendar, zone);
  }
  const auto east = zone_offset(text);
  const auto seconds = moment(calendar, Zone::utc);
  if (!east || !seconds) {
    return std::nullopt;
  }
  return *seconds - *east;
}

struct DayName {
  std::string_view name;
  int days_from_today;
};
constexpr DayName kDayNames[] = {{"today", 0}, {"yesterday", -1}, {"tomorrow", 1}};

std::optional<long long> named_moment(std::string_view text, time_t now, Zone zone) {
  if (text == "now") {
    return now;
  }
  for (const DayName& day : kDayNames) {
    if (day.name == text) {
      std::tm calendar = calendar_of(now, zone);
      calendar.tm_hour = calendar.tm_min = calendar.tm_sec = 0;
      calendar.tm_mday += day.days_from_today;
      calendar.tm_isdst = -1;
      return zone == Zone::utc ? timegm(&calendar) : mktime(&calendar);
    }
  }
  return std::nullopt;
}

// "2h", "2h ago": before now; "+2h": from now on. A bare number could be anything: it has to say
// what it counts.
std::optional<long long> distant_moment(std::string_view text, time_t now) {
  constexpr std::string_view kAgo = " ago";
  const bool ahead = take(text, '+');
  if (!ahead && text.ends_with(kAgo)) {
    text.remove_suffix(kAgo.size());
  }
  unsigned long long distance = 0;
  if (text.empty() || is_digit(text.back()) || parse_duration(text, &distance) != 0 ||
      distance > kLatestShown) {
    return std::nullopt;
  }
  const auto seconds = static_cast<long long>(distance);
  return ahead ? now + seconds : now - seconds;
}

}  // namespace

int parse_time(std::string_view text, time_t now, Zone zone, unsigned long long* ret) {
  if (take(text, '@')) {
    return whole_number(text, ret) ? 0 : -1;
  }
  auto found = named_moment(text, now, zone);
  if (!found) {
    found = calendar_moment(text, now, zone);
  }
  if (!found) {
    found = distant_moment(text, now);
  }
  if (!found) {
    return -1;
  }
  if (*found < 0) {
    return -1;
  }
  *ret = static_cast<unsigned long long>(*found);
  return 0;
}

std::string time_text(unsigned long long seconds, Zone zone) {
  if (seconds == 0) {
    return "-";
  }
  if (seconds > kLatestShown) {
    return fmt::format("@{}", seconds);
  }
  const std::tm calendar = calendar_of(static_cast<time_t>(seconds), zone);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}{}", calendar.tm_year + 1900,
                     calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour, calendar.tm_min,
                     calendar.tm_sec, zone == Zone::utc ? "Z" : "");
}

}  // namespace zorvctl
