// The login-attempt policy: how many failed logins block a user, and for how long.
//
// It stands in a configuration file that the bus service "vpncaas" reads for us, and is read afresh
// whenever it is needed: nobody announces a change.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <string>

namespace zorv {

inline constexpr const char* kLoginPolicyService = "vpncaas";
inline constexpr const char* kLoginPolicyMethod = "read_json";  // with {"path": the file}
inline constexpr const char* kLoginPolicyFile = "/etc/config/vpn_block.conf";

struct LoginPolicy {
  bool enabled = false;  // only by JSON true
  int limit = 0;         // failed logins that block, within int's range; 0: missing or no integer
  double minutes = 0;    // block time; 0 where it is missing or no number
};

// What asking for the policy came to.
struct PolicyReading {
  enum class State {
    read,
    missing,  // there is no file
    broken,   // the file holds no JSON
    failed,   // the service could not read it for another reason, or is not what it should be
    refused,  // the service does not serve this user, or failed at it
    away,     // the service did not answer
  };
  State state = State::away;
  // Half a sentence: why it was not read; of one that was read, which members are of a wrong kind
  // and what they count as, "" where none is.
  std::string remark{};
  LoginPolicy policy{};  // where it was read
};

// Blocks for as long as the bus does, at most five seconds, and logs a failure. Any thread may
// call.
PolicyReading ask_login_policy();

// The same for who needs no reason. False, with ret_policy untouched, when it could not be read.
bool read_login_policy(LoginPolicy& ret_policy);

// What the service's answer says, for whoever asks it in another way.
LoginPolicy login_policy_of(const json_t* reply);

// The block time in whole seconds; 0 for a negative one.
uint64_t block_seconds(double minutes);

enum class BlockState {
  off,       // the policy is off: a check forgets everybody
  counting,  // fewer failures than the limit
  blocked,
  over,  // the block time has run out: a check forgets the user
};

struct BlockVerdict {
  BlockState state = BlockState::off;
  uint64_t seconds_left = 0;  // of a block; at most 10^18
};

// What the policy makes of a user's failures, the last of them counted at `timestamp`. Only its low
// 32 bits count. They are taken without sign, so that a failure counted after January 2038 still
// blocks. A clock that was set back prolongs the block.
BlockVerdict block_verdict(const LoginPolicy& policy, int failures, uint64_t timestamp,
                           int64_t now);

}  // namespace zorv
