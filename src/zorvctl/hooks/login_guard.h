// Asking the daemon about a user, with an answer for each case.
#pragma once

#include <string>

namespace zorvctl {

struct CheckAnswer {
  bool blocked = false;
  int bus_status = 0;  // 0: the daemon answered
};

CheckAnswer check_user(const std::string& username);

// Counts one failed login. Returns the status of the bus.
int count_failure(const std::string& username);

}  // namespace zorvctl
