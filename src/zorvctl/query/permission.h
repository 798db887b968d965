// Why the daemon refuses a caller.
#pragma once

#include <string>

namespace zorvctl {

// What root must do so that this user is served; "" where a refusal has another reason: this user
// is root, runs the daemon, or is named in the allow list already, or the daemon is not root's and
// so is not trusted. Judged by the files: a further call would be refused, and logged, once more.
std::string missing_permission();

}  // namespace zorvctl
