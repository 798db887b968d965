// Base-10 text to a 32-bit integer, as the target's `strtol` does it: leading blanks, one sign,
// digits up to the first other character, and saturation at the limits of 32 bits. The target's
// `long` has 32 bits; numbers in the database and in interface names must read the same on every
// machine. Text without a number reads as 0. No state, safe on any thread.
#pragma once

#include <limits>

inline int long_conversion(const char* text) {
  while (*text == ' ' || (*text >= '\t' && *text <= '\r')) {
    ++text;
  }
  const bool negative = *text == '-';
  if (negative || *text == '+') {
    ++text;
  }
  constexpr int kMax = std::numeric_limits<int>::max();
  constexpr int kMin = std::numeric_limits<int>::min();
  int value = 0;  // kept negative, whose range is the larger one
  for (; *text >= '0' && *text <= '9'; ++text) {
    if (__builtin_mul_overflow(value, 10, &value) ||
        __builtin_sub_overflow(value, *text - '0', &value)) {
      return negative ? kMin : kMax;
    }
  }
  if (negative) {
    return value;
  }
  return value == kMin ? kMax : -value;
}
