#include "duration.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>

#include "whole_number.h"

namespace zorvctl {
namespace {

constexpr unsigned long long kMinute = 60;
constexpr unsigned long long kHour = 60 * kMinute;
constexpr unsigned long long kDay = 24 * kHour;

struct Unit {
  std::string_view name;
  unsigned long long seconds;
};
constexpr Unit kUnits[] = {{"s", 1},    {"m", kMinute},  {"min", kMinute}, {"h", kHour},
                           {"d", kDay}, {"w", 7 * kDay}, {"sec", 1}};

void skip_blank(std::string_view& text) {
  if (text.starts_with(' ')) {
    text.remove_prefix(1);
  }
}

}  // namespace

int parse_duration(std::string_view text, unsigned long long* ret_seconds) {
  unsigned long long total = 0;
  if (whole_number(text, &total)) {
    *ret_seconds = total;
    return 0;
  }
  if (text.empty()) {
    return -1;
  }
  while (!text.empty()) {
    unsigned long long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) {
      return -1;
    }
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    skip_blank(text);
    const size_t letters = std::min(text.find_first_of("0123456789 "), text.size());
    const auto* unit = std::find_if(std::begin(kUnits), std::end(kUnits), [&](const Unit& known) {
      return known.name == text.substr(0, letters);
    });
    if (unit == std::end(kUnits)) {
      return -1;
    }
    text.remove_prefix(letters);
    skip_blank(text);
    unsigned long long seconds = 0;
    if (__builtin_mul_overflow(number, unit->seconds, &seconds) ||
        __builtin_add_overflow(total, seconds, &total)) {
      return -1;
    }
  }
  *ret_seconds = total;
  return 0;
}

std::string duration_text(unsigned long long seconds) {
  if (seconds < kMinute) {
    return fmt::format("{} s", seconds);
  }
  if (seconds < kHour) {
    return fmt::format("{} min {:02} s", seconds / kMinute, seconds % kMinute);
  }
  if (seconds < kDay) {
    return fmt::format("{} h {:02} min", seconds / kHour, seconds % kHour / kMinute);
  }
  return fmt::format("{} d {:02} h", seconds / kDay, seconds % kDay / kHour);
}

}  // namespace zorvctl
