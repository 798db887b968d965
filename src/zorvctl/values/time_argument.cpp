#include "time_argument.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <optional>

#include "duration.h"
#include "whole_number.h"

namespace zorvctl {
namespace {

constexpr unsigned long long kLatestShown = 253402300799;  // the last second of the year 9999

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

struct Form {
  std::string_view shape;  // a 0 for any digit
  const char* format;      // as strptime reads it
};
// Where one begins with another, the longer stands in front.
constexpr Form kCalendarForms[] = {
    {"0000-00-00 00:00:00", "%Y-%m-%d %H:%M:%S"},
    {"0000-00-00T00:00:00", "%Y-%m-%dT%H:%M:%S"},
    {"0000-00-00 00:00", "%Y-%m-%d %H:%M"},
    {"0000-00-00T00:00", "%Y-%m-%dT%H:%M"},
    {"0000-00-00", "%Y-%m-%d"},
    {"00:00:00", "%H:%M:%S"},
    {"00:00", "%H:%M"},
};
constexpr std::string_view kZoneShapes[] = {"+00:00", "+0000", "+00", "-00:00", "-0000", "-00"};

// With a 0 for every digit. strptime alone would take "2026-1-2", too, and blanks nearly anywhere.
std::string shape_of(std::string_view text) {
  std::string shape(text);
  std::replace_if(shape.begin(), shape.end(), is_digit, '0');
  return shape;
}

// The whole of `text`: seconds east of UTC.
std::optional<long long> zone_offset(const std::string& text) {
  if (text == "Z" || text == "z") {
    return 0;
  }
  constexpr long kFarthest = 15 * 3600;
  std::tm zone{};
  const bool known = std::find(std::begin(kZoneShapes), std::end(kZoneShapes), shape_of(text)) !=
                     std::end(kZoneShapes);
  if (!known || strptime(text.c_str(), "%z", &zone) == nullptr ||
      std::abs(zone.tm_gmtoff) >= kFarthest) {
    return std::nullopt;
  }
  return zone.tm_gmtoff;
}

time_t seconds_of(std::tm* calendar, Zone zone) {
  calendar->tm_isdst = -1;
  return zone == Zone::utc ? timegm(calendar) : mktime(calendar);
}

// The moment of a calendar time; nothing for a day that does not exist.
std::optional<long long> moment(const std::tm& calendar, Zone zone) {
  std::tm normal = calendar;
  const time_t seconds = seconds_of(&normal, zone);
  return normal.tm_mday == calendar.tm_mday && normal.tm_mon == calendar.tm_mon
             ? std::optional<long long>(seconds)
             : std::nullopt;
}

std::tm midnight(time_t now, Zone zone) {
  std::tm calendar = calendar_of(now, zone);
  calendar.tm_hour = calendar.tm_min = calendar.tm_sec = 0;
  return calendar;
}

std::optional<long long> calendar_moment(std::string_view text, time_t now, Zone zone) {
  const std::string shape = shape_of(text);
  const auto* form = std::find_if(std::begin(kCalendarForms), std::end(kCalendarForms),
                                  [&](const Form& one) { return shape.starts_with(one.shape); });
  if (form == std::end(kCalendarForms)) {
    return std::nullopt;
  }
  std::tm calendar = midnight(now, zone);
  const std::string written(text.substr(0, form->shape.size()));
  // It reads no further than numbers are in range, and takes seconds up to 61.
  const char* const read_to = strptime(written.c_str(), form->format, &calendar);
  if (read_to == nullptr || *read_to != '\0' || calendar.tm_sec > 59) {
    return std::nullopt;
  }
  std::string_view rest = text.substr(form->shape.size());
  if (form->shape.ends_with(":00") && rest.starts_with(' ')) {
    rest.remove_prefix(1);
  }
  if (rest.empty()) {
    return moment(calendar, zone);
  }
  const auto east = zone_offset(std::string(rest));
  const auto seconds = moment(calendar, Zone::utc);
  return east && seconds ? std::optional(*seconds - *east) : std::nullopt;
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
      std::tm calendar = midnight(now, zone);
      calendar.tm_mday += day.days_from_today;
      return seconds_of(&calendar, zone);
    }
  }
  return std::nullopt;
}

// "2h", "2h ago": before now; "+2h": from now on. A bare number could be anything: it has to say
// what it counts.
std::optional<long long> distant_moment(std::string_view text, time_t now) {
  constexpr std::string_view kAgo = " ago";
  const bool ahead = text.starts_with('+');
  if (ahead) {
    text.remove_prefix(1);
  } else if (text.ends_with(kAgo)) {
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

std::tm calendar_of(time_t seconds, Zone zone) {
  std::tm calendar{};
  if (zone == Zone::utc) {
    gmtime_r(&seconds, &calendar);
  } else {
    localtime_r(&seconds, &calendar);
  }
  return calendar;
}

int parse_time(std::string_view text, time_t now, Zone zone, unsigned long long* ret) {
  if (text.starts_with('@')) {
    return whole_number(text.substr(1), ret) ? 0 : -1;
  }
  auto found = named_moment(text, now, zone);
  if (!found) {
    found = calendar_moment(text, now, zone);
  }
  if (!found) {
    found = distant_moment(text, now);
  }
  if (!found || *found < 0) {
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
  char text[sizeof "10000-01-01 00:00:00"];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &calendar);
  return std::string(text, length) + (zone == Zone::utc ? "Z" : "");
}

}  // namespace zorvctl
