// The login-attempt policy: how many failed logins block a user, and for how long.
//
// It stands in a configuration file that the bus service "vpncaas" reads for us, and is read afresh
// whenever it is needed: nobody announces a change.
#pragma once

#include <cstdint>

namespace zorv {

inline constexpr const char* kLoginPolicyFile = "/etc/config/vpn_block.conf";

struct LoginPolicy {
  bool enabled = false;  // only by JSON true
  int limit = 0;         // failed logins that block; 0 where it is missing or no integer
  double minutes = 0;    // block time; 0 where it is missing or no number
};

// False, with ret_policy untouched, when the policy could not be read. Blocks for as long as the
// bus does, at most five seconds. Any thread may call.
bool read_login_policy(LoginPolicy& ret_policy);

// The block time in whole seconds; 0 for a negative one.
uint64_t block_seconds(double minutes);

// Seconds from a user's last counted failure to `now`; negative when the clock was set back. Only
// the low 32 bits of the row's time count. They are taken without sign, so that a failure counted
// after January 2038 still blocks.
double seconds_since_failure(uint64_t timestamp, int64_t now);

}  // namespace zorv
