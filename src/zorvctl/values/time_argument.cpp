#include "time_argument.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <optional>

#include "duration.h"
#include "whole_number.h"

namespace zorvctl {
namespace {

constexpr unsigned long long kLatestShown = 253402300799;  // the last second of the year 9999
constexpr int kDaysOfWeek = 7;

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

bool is_same_word(std::string_view one, std::string_view other) {
  return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

// A front of that shape, a 0 for any digit: strptime alone would take "2026-1-2", too, and blanks
// nearly anywhere. `text` then begins behind it.
bool take(std::string_view& text, std::string_view shape, const char* format, std::tm* calendar) {
  const std::string front(text.substr(0, shape.size()));
  std::string digits = front;
  std::replace_if(digits.begin(), digits.end(), is_digit, '0');
  const char* const end =
      digits == shape ? strptime(front.c_str(), format, calendar) : front.c_str();
  if (end == nullptr || *end != '\0' || digits != shape) {
    return false;  // it reads no further than numbers are in range
  }
  text.remove_prefix(shape.size());
  return true;
}

bool take_date(std::string_view& text, std::tm* calendar) {
  if (!take(text, "0000-00-00", "%Y-%m-%d", calendar)) {
    return false;
  }
  std::tm normal = *calendar;
  timegm(&normal);
  return normal.tm_mday == calendar->tm_mday;  // of a day that does not exist it is not
}

// The last moment that a time of day names is so many seconds behind its first; none for no time.
std::optional<int> take_time_of_day(std::string_view& text, std::tm* calendar) {
  constexpr int kRestOfMinute = 59;
  std::string_view rest = text;
  std::optional<int> taken;
  if (take(rest, "00:00:00", "%H:%M:%S", calendar)) {
    if (rest.size() > 1 && rest[0] == '.' && is_digit(rest[1])) {
      rest.remove_prefix(1);
      rest.remove_prefix(std::min(rest.find_first_not_of("0123456789"), rest.size()));
    }
    taken = calendar->tm_sec <= 59 ? std::optional(0) : std::nullopt;  // strptime takes 61
  } else if (take(rest, "00:00", "%H:%M", calendar)) {
    taken = kRestOfMinute;
  }
  text = taken ? rest : text;
  return taken;
}

void add_days(std::tm* calendar, int days) {
  calendar->tm_mday += days;
  timegm(calendar);  // also finds the day of the week
}

// The first letters of `text`, which then begins behind them and a comma or blanks.
std::string_view take_word(std::string_view& text) {
  size_t end = 0;
  while (end < text.size() && std::isalpha(static_cast<unsigned char>(text[end])) != 0) {
    ++end;
  }
  const std::string_view word = text.substr(0, end);
  text.remove_prefix(end);
  text.remove_prefix(std::min(text.find_first_not_of(word.empty() ? "" : ", "), text.size()));
  return word;
}

struct DayName {
  std::string_view name;
  int days_from_today;
};
constexpr DayName kDayNames[] = {{"today", 0}, {"yesterday", -1}, {"tomorrow", 1}};
constexpr std::string_view kWeekDays[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                          "Thursday", "Friday", "Saturday"};

std::optional<int> weekday_of(std::string_view word) {
  constexpr size_t kShort = 3;
  for (size_t day = 0; day < std::size(kWeekDays); ++day) {
    if (is_same_word(word, kWeekDays[day]) ||
        is_same_word(word, kWeekDays[day].substr(0, kShort))) {
      return static_cast<int>(day);
    }
  }
  return std::nullopt;
}

struct Moments {
  long long first;
  long long last;
};

// The day that the front of `text` names, today where it names none. False for a date that is none,
// or not of the day of the week in front of it.
bool take_day(std::string_view& text, std::tm* calendar, bool* ret_named) {
  const std::string_view whole = text;
  const std::string_view word = take_word(text);
  const auto* name = std::find_if(std::begin(kDayNames), std::end(kDayNames),
                                  [&](const DayName& day) { return day.name == word; });
  *ret_named = !word.empty();
  if (name != std::end(kDayNames)) {
    add_days(calendar, name->days_from_today);
    return true;
  }
  const auto weekday = weekday_of(word);
  if (!word.empty() && !weekday) {
    text = whole;
    return false;
  }
  const bool dated = text.find('-') == 4;
  if (dated) {
    if (!take_date(text, calendar)) {
      return false;
    }
    if (!text.empty() && (text[0] == ' ' || text[0] == 'T')) {
      text.remove_prefix(1);
      *ret_named = !text.empty() && is_digit(text[0]);  // a time has to follow
      if (!*ret_named) {
        return false;
      }
    }
    add_days(calendar, 0);
    *ret_named = true;
    return !weekday || *weekday == calendar->tm_wday;
  }
  if (weekday) {
    add_days(calendar, -((calendar->tm_wday - *weekday + kDaysOfWeek) % kDaysOfWeek));
  }
  return true;
}

std::optional<Moments> calendar_moments(std::string_view text, time_t now, Zone zone) {
  Clock clock(zone);
  const size_t blank = text.rfind(' ');
  if (blank != std::string_view::npos && clock.take(text.substr(blank + 1))) {
    text = text.substr(0, blank);
  }
  std::tm calendar = clock.calendar_of(now);
  calendar.tm_hour = calendar.tm_min = calendar.tm_sec = 0;
  bool has_day = false;
  if (!take_day(text, &calendar, &has_day)) {
    return std::nullopt;
  }
  const auto rest_of_time = take_time_of_day(text, &calendar);
  if ((!rest_of_time && !has_day) || (!text.empty() && !clock.take(text))) {
    return std::nullopt;
  }
  const long long first = clock.moment_of(calendar);
  if (rest_of_time) {
    return Moments{first, first + *rest_of_time};
  }
  add_days(&calendar, 1);
  return Moments{first, clock.moment_of(calendar) - 1};
}

// "2h", "-2h", "2h ago": before now; "+2h", "2h left": from now on. A bare number could be
// anything: it has to say what it counts.
std::optional<Moments> distant_moment(std::string_view text, time_t now) {
  constexpr std::string_view kAgo = " ago";
  constexpr std::string_view kLeft = " left";
  bool ahead = false;
  if (text.starts_with('+') || text.starts_with('-')) {
    ahead = text.front() == '+';
    text.remove_prefix(1);
  } else if (text.ends_with(kAgo)) {
    text.remove_suffix(kAgo.size());
  } else if (text.ends_with(kLeft)) {
    ahead = true;
    text.remove_suffix(kLeft.size());
  }
  unsigned long long distance = 0;
  if (text.empty() || is_digit(text.back()) || parse_duration(text, &distance) != 0 ||
      distance > kLatestShown) {
    return std::nullopt;
  }
  const auto seconds = static_cast<long long>(distance);
  const long long moment = ahead ? now + seconds : now - seconds;
  return Moments{moment, moment};
}

// The digits of "@1795234206.5", up to the point.
bool read_epoch(std::string_view text, unsigned long long* ret) {
  const size_t point = text.find('.');
  if (point != std::string_view::npos) {
    const std::string_view decimals = text.substr(point + 1);
    if (decimals.empty() || !std::all_of(decimals.begin(), decimals.end(), is_digit)) {
      return false;
    }
  }
  return whole_number(text.substr(0, point), ret);
}

std::string date_text(const std::tm& calendar) {
  return fmt::format("{:04}-{:02}-{:02}", calendar.tm_year + 1900, calendar.tm_mon + 1,
                     calendar.tm_mday);
}

std::string time_of_day_text(const std::tm& calendar) {
  return fmt::format("{:02}:{:02}:{:02}", calendar.tm_hour, calendar.tm_min, calendar.tm_sec);
}

}  // namespace

std::tm calendar_of(time_t seconds, Zone zone) {
  std::tm calendar{};
  if (zone == Zone::utc) {
    gmtime_r(&seconds, &calendar);
  } else {
    localtime_r(&seconds, &calendar);
  }
  return calendar;
}

int parse_time_span(std::string_view text, time_t now, Zone zone, TimeSpan* ret) {
  if (text.starts_with('@')) {
    unsigned long long seconds = 0;
    if (!read_epoch(text.substr(1), &seconds)) {
      return -1;
    }
    *ret = {seconds, seconds};
    return 0;
  }
  std::optional<Moments> found;
  if (text == "now") {
    found = Moments{now, now};
  }
  if (!found) {
    found = calendar_moments(text, now, zone);
  }
  if (!found) {
    found = distant_moment(text, now);
  }
  if (!found || found->first < 0) {
    return -1;
  }
  *ret = {static_cast<unsigned long long>(found->first),
          static_cast<unsigned long long>(found->last)};
  return 0;
}

int parse_time(std::string_view text, time_t now, Zone zone, unsigned long long* ret) {
  TimeSpan span{};
  const int status = parse_time_span(text, now, zone, &span);
  *ret = status == 0 ? span.first : *ret;
  return status;
}

std::string time_text(unsigned long long seconds, Zone zone) {
  if (seconds == 0) {
    return "-";
  }
  if (seconds > kLatestShown) {
    return fmt::format("@{}", seconds);
  }
  const std::tm calendar = calendar_of(static_cast<time_t>(seconds), zone);
  return date_text(calendar) + " " + time_of_day_text(calendar) + (zone == Zone::utc ? "Z" : "");
}

std::string short_time_text(unsigned long long seconds, Zone zone, time_t now) {
  constexpr unsigned long long kHalfYear = 31'557'600 / 2;
  if (seconds == 0 || seconds > kLatestShown) {
    return time_text(seconds, zone);
  }
  const auto today = static_cast<unsigned long long>(now);
  const unsigned long long distance = std::max(seconds, today) - std::min(seconds, today);
  const std::tm calendar = calendar_of(static_cast<time_t>(seconds), zone);
  return distance < kHalfYear ? fmt::format("{:02}-{:02} {:02}:{:02}", calendar.tm_mon + 1,
                                            calendar.tm_mday, calendar.tm_hour, calendar.tm_min)
                              : date_text(calendar);
}

std::string iso_time_text(unsigned long long seconds, Zone zone) {
  if (seconds == 0 || seconds > kLatestShown) {
    return seconds == 0 ? "" : time_text(seconds, zone);
  }
  const std::tm calendar = calendar_of(static_cast<time_t>(seconds), zone);
  const std::string text = date_text(calendar) + "T" + time_of_day_text(calendar);
  if (zone == Zone::utc) {
    return text + "Z";
  }
  const long long east = Clock(zone).east_of_utc(static_cast<time_t>(seconds)) / 60;
  const long long minutes = east < 0 ? -east : east;
  return text + fmt::format("{}{:02}:{:02}", east < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

}  // namespace zorvctl
