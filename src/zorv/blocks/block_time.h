// How long a blocked user stays blocked: what the daemon's own answer does not tell.
#pragma once

#include <cstdint>
#include <string>

#include "call_deadline.h"

namespace zorv_api {

// Asks for the user's row and for the login policy. False, with ret_seconds untouched, where one of
// them is not to be had in time. Logs nothing.
bool ask_seconds_left(const std::string& username, const CallDeadline& deadline,
                      uint64_t& ret_seconds);

}  // namespace zorv_api
