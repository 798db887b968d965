// What the login-attempt policy makes of a user's counted failures: the same arithmetic as the
// daemon's check, without its effects.
#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "login_policy.h"
#include "zorv_records.h"

namespace zorvctl {

enum class BlockState {
  unknown,   // the policy could not be read
  off,       // the policy is off: the next check forgets the user
  counting,  // fewer failures than the limit
  blocked,
  over,  // the block time has run out: the next check forgets the user
};

struct BlockVerdict {
  BlockState state = BlockState::unknown;
  unsigned long long seconds_left = 0;  // of a block
};

BlockVerdict block_verdict(const db_privilege_user_block_data& user,
                           const std::optional<zorv::LoginPolicy>& policy, std::time_t now);

const char* block_state_text(BlockState state);

}  // namespace zorvctl
