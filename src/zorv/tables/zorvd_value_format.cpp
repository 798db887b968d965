#include "zorvd_value_format.h"

#include <cstdio>
#include <iterator>

#include "regional_format.h"

namespace {

constexpr const char* kUnits[] = {"KB", "MB", "GB", "TB", "PB", "EB", "ZB"};

std::string two_digits(long long value) {
  char text[32];
  snprintf(text, sizeof text, value < 10 ? "0%lld" : "%lld", value);
  return text;
}

}  // namespace

void bytesToStr(long long bytes, std::string& out) {
  if (bytes == 0) {
    out = " ";
    return;
  }
  double value = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  while (value > 1024 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  char text[1024];
  snprintf(text, sizeof text, "%.2Lf %s", static_cast<long double>(value), kUnits[unit]);
  out = text;
}

void secondsToStr(long long seconds, std::string& out) {
  const long long hours = seconds / 3600;
  const std::string minutes = two_digits((seconds / 60) % 60);
  const std::string rest = two_digits(seconds % 60);
  char text[256];
  if (hours != 0) {
    snprintf(text, sizeof text, "%lld:%s:%s", hours, minutes.c_str(), rest.c_str());
  } else {
    snprintf(text, sizeof text, "%s:%s", minutes.c_str(), rest.c_str());
  }
  out = text;
}

std::string timestamp(long long t) {
  return t == 0 ? "" : nas::date_and_time(static_cast<time_t>(t));
}
