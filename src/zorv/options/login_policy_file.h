// Changing the login policy's file, which belongs to the administrator and to other programs, too:
// only what is asked for changes in it, and a reader sees the old file or the new one.
#pragma once

#include <optional>
#include <string>

namespace zorv {

// What a file that is made has beside what is asked for; the package installs the same.
inline constexpr bool kDefaultPolicyIsOn = true;
inline constexpr int kDefaultPolicyLimit = 5;
inline constexpr int kDefaultPolicyMinutes = 10;

// What is given is changed.
struct PolicyChange {
  std::optional<bool> enabled;
  std::optional<int> limit;
  std::optional<double> minutes;
};

// The minutes that block_seconds() makes so many seconds of.
double minutes_of(unsigned long long seconds);

// Under the file's write lock, waited for up to thirty seconds, writes a file beside it and puts
// that in its place. Mode, owner and what else the file holds are kept; it is followed where it is
// a link.
// "" when that is done; otherwise the file is as it was, and this is why, half a sentence. Any
// thread may call; no other program is told.
std::string change_login_policy(const PolicyChange& change);

}  // namespace zorv
