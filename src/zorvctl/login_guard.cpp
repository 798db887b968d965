#include "login_guard.h"

#include <chrono>

#include "kxbus.h"
#include "zorv_api_db.h"

namespace zorvctl {

CheckAnswer check_user(const std::string& username) {
  std::string name = username;
  const auto before = std::chrono::steady_clock::now();
  const int result = check_privilege_user_block(name.data());
  const auto waited = std::chrono::steady_clock::now() - before;
  if (result != KX_TIMEOUT) {
    return {false, result};
  }
  // 1 says "blocked", and it is the bus's status for no answer within five seconds. The clock tells
  // them apart: a time-out cannot come earlier than that. A daemon that says "blocked" in the very
  // last moment is taken for one that said nothing.
  constexpr std::chrono::milliseconds kLatestAnswer(4950);
  return waited < kLatestAnswer ? CheckAnswer{true, KX_SUCCESS} : CheckAnswer{false, KX_TIMEOUT};
}

int count_failure(const std::string& username) {
  std::string name = username;
  return add_privilege_user_block(name.data());
}

}  // namespace zorvctl
