#include "block_state.h"

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
  // Only the low 32 bits of the stored time count. A clock that was set back makes elapsed negative
  // and the block longer than the policy says.
  const auto counted = static_cast<std::int32_t>(static_cast<std::uint32_t>(user.timestamp));
  const double elapsed = std::difftime(now, counted);
  const double whole = static_cast<double>(zorv::block_seconds(policy->minutes));
  if (elapsed < whole) {
    return {BlockState::blocked, static_cast<unsigned long long>(whole - elapsed)};
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
