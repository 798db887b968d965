// A login at an OpenVPN server, judged for its auth-user-pass-verify.
#pragma once

#include "openvpn_environment.h"
#include "openvpn_words.h"

namespace zorvctl {

// What OpenVPN takes an exit status for.
inline constexpr int kGoOn = 0;
inline constexpr int kRefuse = 1;
inline constexpr int kWait = 2;

// Asks the daemon and the checker, counts and records, and says what keeps a login out. A verdict
// as above.
int verify_login(Environment environment, const HookWords& words);

}  // namespace zorvctl
