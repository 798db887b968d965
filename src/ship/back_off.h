// How long to wait after the n-th failure in a row: from a tenth of a second up to a minute,
// doubled each time, of which a random part between the half and the whole is waited, so that those
// that failed together do not come back together.
#pragma once

#include <algorithm>
#include <chrono>
#include <random>

namespace ship {

class BackOff {
 public:
  std::chrono::milliseconds next() {
    const std::chrono::milliseconds wait = part_of(wait_, 0.5, 1.0);
    wait_ = std::min(wait_ * 2, kMost);
    return wait;
  }
  void reset() { wait_ = kLeast; }

  std::chrono::milliseconds part_of(std::chrono::milliseconds whole, double from, double to) {
    const double part = std::uniform_real_distribution<>(from, to)(random_);
    return std::chrono::milliseconds(
        static_cast<std::chrono::milliseconds::rep>(part * static_cast<double>(whole.count())));
  }

 private:
  static constexpr std::chrono::milliseconds kLeast{100};
  static constexpr std::chrono::milliseconds kMost{60'000};

  std::chrono::milliseconds wait_ = kLeast;
  std::minstd_rand random_{std::random_device()()};
};

}  // namespace ship
