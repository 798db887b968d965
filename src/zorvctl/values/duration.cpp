#include "duration.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "whole_number.h"

namespace zorvctl {
namespace {

constexpr unsigned long long kMinute = 60;
constexpr unsigned long long kHour = 60 * kMinute;
constexpr unsigned long long kDay = 24 * kHour;

constexpr unsigned long long kMicroseconds = 1'000'000;  // of a second

struct Unit {
  std::string_view names;  // a blank around each
  unsigned long long microseconds;
};
constexpr Unit kUnits[] = {
    {" us usec \u00b5s \u03bcs ", 1},
    {" ms msec ", 1000},
    {" s sec second seconds ", kMicroseconds},
    {" m min minute minutes ", kMinute* kMicroseconds},
    {" h hr hour hours ", kHour* kMicroseconds},
    {" d day days ", kDay* kMicroseconds},
    {" w week weeks ", 7 * kDay* kMicroseconds},
    {" M month months ", 2'629'800 * kMicroseconds},  // a twelfth of a year
    {" y year years ", 31'557'600 * kMicroseconds},   // 365.25 days
};

const Unit* unit_of(std::string_view name) {
  const auto* unit = std::find_if(std::begin(kUnits), std::end(kUnits), [&](const Unit& known) {
    return known.names.find(fmt::format(" {} ", name)) != std::string_view::npos;
  });
  return unit != std::end(kUnits) ? unit : nullptr;
}

void skip_blanks(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
}

// The digits in front of `text`, which then begins behind them.
std::string_view take_digits(std::string_view& text) {
  const std::string_view digits = text.substr(0, text.find_first_not_of("0123456789"));
  text.remove_prefix(digits.size());
  return digits;
}

// A number with its unit, added to *total.
bool add_amount(std::string_view& text, unsigned long long* total) {
  const std::string_view whole = take_digits(text);
  std::string_view decimals;
  if (text.starts_with('.')) {
    text.remove_prefix(1);
    decimals = take_digits(text);
    if (decimals.empty()) {
      return false;
    }
  }
  skip_blanks(text);
  const std::string_view name = text.substr(0, text.find_first_of("0123456789 "));
  const Unit* const unit = unit_of(name);
  unsigned long long amount = 0;
  if (unit == nullptr || !whole_number(whole, &amount) ||
      __builtin_mul_overflow(amount, unit->microseconds, &amount)) {
    return false;
  }
  unsigned long long place = unit->microseconds;
  for (const char digit : decimals) {
    place /= 10;
    amount += static_cast<unsigned>(digit - '0') * place;
  }
  text.remove_prefix(name.size());
  skip_blanks(text);
  return !__builtin_add_overflow(*total, amount, total);
}

struct Parts {
  unsigned long long large;
  const char* large_unit;
  unsigned long long small;
  const char* small_unit;
};

// The two units that tell most.
Parts parts_of(unsigned long long seconds) {
  if (seconds < kHour) {
    return {seconds / kMinute, "min", seconds % kMinute, "s"};
  }
  if (seconds < kDay) {
    return {seconds / kHour, "h", seconds % kHour / kMinute, "min"};
  }
  return {seconds / kDay, "d", seconds % kDay / kHour, "h"};
}

}  // namespace

int parse_duration(std::string_view text, unsigned long long* ret_seconds) {
  unsigned long long total = 0;
  if (whole_number(text, &total)) {
    *ret_seconds = total;
    return 0;
  }
  total = 0;
  if (text.empty()) {
    return -1;
  }
  while (!text.empty()) {
    if (!add_amount(text, &total)) {
      return -1;
    }
  }
  *ret_seconds = total / kMicroseconds;
  return 0;
}

std::string duration_text(unsigned long long seconds) {
  if (seconds < kMinute) {
    return fmt::format("{} s", seconds);
  }
  const Parts parts = parts_of(seconds);
  return fmt::format("{} {} {:02} {}", parts.large, parts.large_unit, parts.small,
                     parts.small_unit);
}

std::string short_duration_text(unsigned long long seconds) {
  if (seconds < kMinute) {
    return fmt::format("{}s", seconds);
  }
  const Parts parts = parts_of(seconds);
  return fmt::format("{}{}{:02}{}", parts.large, parts.large_unit[0], parts.small,
                     parts.small_unit[0]);
}

}  // namespace zorvctl
