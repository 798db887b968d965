// Whom the login policy blocks.
#include <gtest/gtest.h>

#include <tuple>

#include "login_policy.h"

namespace {

using enum zorv::BlockState;

TEST(LoginPolicy, BlocksFromTheLimitUntilTheTimeIsOver) {
  using Case = std::tuple<zorv::LoginPolicy, int, uint64_t, int64_t, zorv::BlockState, uint64_t>;
  const Case cases[] = {
      {{false, 3, 5}, 9, 1000, 1000, off, 0},
      {{true, 3, 5}, 2, 1000, 1000, counting, 0},
      {{true, 3, 5}, 4, 1000, 1299, blocked, 1},
      {{true, 3, 5}, 3, 1000, 1300, over, 0},
      {{true, 3, 0.0499}, 3, 1000, 1000, blocked, 2},
      // A clock set back; and 32 bits of the stored time count, without sign.
      {{true, 3, 0}, 3, 1000, 900, blocked, 100},
      {{true, 3, 5}, 3, 4294967296 + 1000, 1001, blocked, 299},
      {{true, 3, 5}, 3, 2147483648, 2147483649, blocked, 299},
  };
  for (const auto& [policy, failures, timestamp, now, state, seconds_left] : cases) {
    SCOPED_TRACE(testing::Message() << failures << " at " << timestamp << " asked at " << now);
    const zorv::BlockVerdict verdict = block_verdict(policy, failures, timestamp, now);
    EXPECT_EQ(verdict.state, state);
    EXPECT_EQ(verdict.seconds_left, seconds_left);
  }
}

}  // namespace
