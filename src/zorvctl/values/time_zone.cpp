#include "time_zone.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iterator>

namespace zorvctl {
namespace {

constexpr long long kDay = 24LL * 3600;
constexpr std::string_view kOffsetShapes[] = {"+00:00", "+0000", "+00", "-00:00", "-0000", "-00"};

std::optional<long long> fixed_offset(const std::string& name) {
  if (name == "Z" || name == "z" || name == "UTC") {
    return 0;
  }
  std::string shape = name;
  std::replace_if(
      shape.begin(), shape.end(), [](char c) { return c >= '0' && c <= '9'; }, '0');
  constexpr long kFarthest = 15 * 3600;
  std::tm zone{};
  const bool known = std::find(std::begin(kOffsetShapes), std::end(kOffsetShapes), shape) !=
                     std::end(kOffsetShapes);
  if (!known || strptime(name.c_str(), "%z", &zone) == nullptr ||
      std::abs(zone.tm_gmtoff) >= kFarthest) {
    return std::nullopt;
  }
  return zone.tm_gmtoff;
}

bool is_of_local_zone(const std::string& name) {
  tzset();
  return name == tzname[0] || name == tzname[1];
}

// Of the system's data base of zones.
bool has_file(const std::string& name) {
  const char* const folder = std::getenv("TZDIR");
  const bool plain = std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '_' || c == '/' || c == '+' || c == '-';
  });
  const std::string path = std::string(folder != nullptr ? folder : "/usr/share/zoneinfo") + "/";
  struct stat file {};
  return plain && !name.empty() && std::isupper(static_cast<unsigned char>(name[0])) != 0 &&
         stat((path + name).c_str(), &file) == 0 && S_ISREG(file.st_mode);
}

}  // namespace

Clock::Clock(Zone zone) : fixed_(zone == Zone::utc ? std::optional(0LL) : std::nullopt) {}

Clock::~Clock() {
  if (!has_named_zone_) {
    return;
  }
  if (outer_zone_) {
    setenv("TZ", outer_zone_->c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

bool Clock::take(std::string_view name) {
  const std::string zone(name);
  if (const auto offset = fixed_offset(zone)) {
    fixed_ = offset;
    return true;
  }
  if (is_of_local_zone(zone)) {
    fixed_.reset();
    return true;
  }
  if (!has_file(zone)) {
    return false;
  }
  fixed_.reset();
  if (const char* const outer = std::getenv("TZ")) {
    outer_zone_ = outer;
  }
  has_named_zone_ = true;
  setenv("TZ", (":" + zone).c_str(), 1);
  tzset();
  return true;
}

long long Clock::east_of_utc(time_t seconds) const {
  if (fixed_) {
    return *fixed_;
  }
  std::tm calendar{};
  localtime_r(&seconds, &calendar);
  return calendar.tm_gmtoff;
}

std::tm Clock::calendar_of(time_t seconds) const {
  const auto shifted = static_cast<time_t>(seconds + east_of_utc(seconds));
  std::tm calendar{};
  gmtime_r(&shifted, &calendar);
  return calendar;
}

long long Clock::moment_of(std::tm calendar) const {
  const long long as_utc = timegm(&calendar);
  const long long east_before = east_of_utc(static_cast<time_t>(as_utc - kDay));
  const long long east_after = east_of_utc(static_cast<time_t>(as_utc + kDay));
  for (const long long east : {east_before, east_after}) {
    if (east_of_utc(static_cast<time_t>(as_utc - east)) == east) {
      return as_utc - east;
    }
  }
  return as_utc - east_before;
}

}  // namespace zorvctl
