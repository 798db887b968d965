#include "block_state.h"

#include <algorithm>

#include <cstdint>

namespace zorvctl {

BlockVerdict block_verdict(const db_privilege_user_block_data& user,
                           const std::optional<zorv::LoginPolicy>& policy, std::time_t now) {
  if (!policy) {
    return {BlockState::unknown};
  }
  if (!policy->enabled) {
    return {BlockState::off};
  }
  if (policy->limit > user.limit) {
    return {BlockState::counting};
  }
  const double elapsed = zorv::seconds_since_failure(user.timestamp, now);
  const double whole = static_cast<double>(zorv::block_seconds(policy->minutes));
  if (elapsed < whole) {
    constexpr double kLongest = 1e18;  // well inside 64 bits, and longer than anybody waits
    return {BlockState::blocked,
            static_cast<unsigned long long>(std::min(whole - elapsed, kLongest))};
  }
  return {BlockState::over};
}

const char* block_state_text(BlockState state) {
  switch (state) {
    case BlockState::unknown:
      return "unknown";
    case BlockState::off:
      return "policy off";
    case BlockState::counting:
      return "counting";
    case BlockState::blocked:
      return "blocked";
    case BlockState::over:
      return "block over";
  }
  return "unknown";
}

}  // namespace zorvctl
