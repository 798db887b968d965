// The time that one question may take, whatever it asks of whom.
#pragma once

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>

namespace zorv_api {

class CallDeadline {
 public:
  explicit CallDeadline(uint32_t milliseconds)
      : end_(Clock::now() + std::chrono::milliseconds(milliseconds)) {}

  // Whole milliseconds, as the bus takes them; 0 when the time is over.
  int milliseconds_left() const {
    using std::chrono::milliseconds;
    const auto left = std::chrono::duration_cast<milliseconds>(end_ - Clock::now());
    return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX));
  }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point end_;
};

}  // namespace zorv_api
