#include "login_guard.h"

#include "call_time.h"
#include "kxbus.h"
#include "zorv_api_db.h"

namespace zorvctl {

CheckAnswer check_user(const std::string& username) {
  std::string name = username;
  const CallTime time;
  const int result = check_privilege_user_block(name.data());
  if (result != KX_TIMEOUT) {
    return {false, result};
  }
  // 1 says "blocked", and it is the bus's status for a time-out. The clock tells them apart.
  return time.ran_out() ? CheckAnswer{false, KX_TIMEOUT} : CheckAnswer{true, KX_SUCCESS};
}

int count_failure(const std::string& username) {
  std::string name = username;
  return add_privilege_user_block(name.data());
}

}  // namespace zorvctl
