// The login policy as the service tells it, and whom it blocks.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <tuple>

#include "harness/fake_service.h"
#include "login_policy.h"

namespace {

using enum zorv::BlockState;

TEST(LoginPolicy, IsReadAsTheServiceTellsItOrLeftAlone) {
  const struct {
    std::string reply;
    std::tuple<bool, bool, int, double> policy;  // read, enabled, limit, minutes
  } cases[] = {
      {R"("data": {"global": {"enable": true, "limit": 3, "time": 5}})", {true, true, 3, 5}},
      {R"("data": {"global": {"enable": true, "limit": 3.9, "time": 0.5}})", {true, true, 0, 0.5}},
      {R"("data": {"global": {"enable": true, "limit": "3", "time": "5"}})", {true, true, 0, 0}},
      {R"("data": {"global": {"enable": true, "limit": 4294967296}})", {true, true, INT_MAX, 0}},
      {R"("data": {"global": {"enable": true, "limit": -4294967297}})", {true, true, INT_MIN, 0}},
      {R"("data": {"global": {"enable": false, "limit": 3, "time": 5}})", {true, false, 3, 5}},
      {R"("data": {"global": {"enable": "true", "limit": 1}})", {true, false, 1, 0}},
      {R"("data": {"global": {"enable": 1}})", {true, false, 0, 0}},
      {R"("data": 7)", {true, false, 0, 0}},
      {"garbage", {false, true, 99, 98}},
  };
  for (const auto& [reply, expected] : cases) {
    const harness::FakeService service("vpncaas", "read_json", R"({"error": 0, )" + reply + "}");
    zorv::LoginPolicy policy{true, 99, 98};
    const bool read = zorv::read_login_policy(policy);
    EXPECT_EQ(std::tuple(read, policy.enabled, policy.limit, policy.minutes), expected) << reply;
    EXPECT_EQ(service.calls().at(0), R"(read_json {"path": "/etc/config/vpn_block.conf"})");
  }
}

TEST(LoginPolicy, BlocksFromTheLimitUntilTheTimeIsOver) {
  const struct {
    zorv::LoginPolicy policy;
    int failures;
    uint64_t timestamp;
    int64_t now;
    zorv::BlockState state;
    uint64_t left;
  } cases[] = {
      {{false, 3, 5}, 9, 1000, 1000, off, 0},
      {{true, 3, 5}, 2, 1000, 1000, counting, 0},
      {{true, 3, 5}, 3, 1000, 1000, blocked, 300},
      {{true, 3, 5}, 4, 1000, 1299, blocked, 1},
      {{true, 3, 5}, 3, 1000, 1300, over, 0},
      {{true, INT_MAX, 5}, INT_MAX - 1, 1000, 1000, counting, 0},
      {{true, INT_MAX, 5}, INT_MAX, 1000, 1000, blocked, 300},
      {{true, 0, 5}, 0, 1000, 1001, blocked, 299},
      {{true, -1, 5}, 0, 1000, 1001, blocked, 299},
      // Block times are cut to whole seconds.
      {{true, 3, 0.0499}, 3, 1000, 1000, blocked, 2},
      {{true, 3, 0.001}, 3, 1000, 1000, over, 0},
      {{true, 3, -1}, 3, 1000, 1000, over, 0},
      {{true, 3, std::nan("")}, 3, 1000, 1000, over, 0},
      {{true, 3, 1e300}, 3, 1000, 1000, blocked, 1000000000000000000},
      // A clock set back; and 32 bits of the stored time count, without sign.
      {{true, 3, 5}, 3, 1000, 900, blocked, 400},
      {{true, 3, 0}, 3, 1000, 900, blocked, 100},
      {{true, 3, 5}, 3, 4294967296 + 1000, 1001, blocked, 299},
      {{true, 3, 5}, 3, 2147483648, 2147483649, blocked, 299},
  };
  for (const auto& one : cases) {
    const auto verdict = block_verdict(one.policy, one.failures, one.timestamp, one.now);
    EXPECT_EQ(verdict.state, one.state) << &one - cases;
    EXPECT_EQ(verdict.seconds_left, one.left) << &one - cases;
  }
  EXPECT_EQ(zorv::block_seconds(1e300), ~uint64_t{0});
}

}  // namespace
