// What a call to the daemon came to, as an exit status and a sentence.
#pragma once

#include <string>

namespace zorvctl {

// Beside the statuses of the bus: the daemon answered, and could not read its table.
inline constexpr int kTableNotRead = -1;

// kDone for 0; otherwise complains, naming `what` was asked ("list the connections"), and returns
// kUnreachable when no daemon answered, kFailed when it refused.
int report_status(int status, const std::string& what);

// A sentence for a status: "the daemon is not running".
const char* status_text(int status);

}  // namespace zorvctl
