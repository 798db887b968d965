// How zorvctl ends, and how it complains: scripts rely on these numbers.
#pragma once

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

namespace zorvctl {

enum ExitStatus : int {
  kDone = 0,         // an empty list is done, too
  kFailed = 1,       // the daemon or the system refused
  kUsage = 2,        // the words of the command line are wrong; nothing was asked of the daemon
  kUnreachable = 3,  // the daemon did not answer
  // Only "block check"; from 5 on nobody can tell whether the user is blocked.
  kBlocked = 4,
  kUnknown = 5,        // the login policy cannot be read, for none of the following reasons
  kPolicyMissing = 6,  // there is no login policy
  kPolicyBroken = 7,   // its file holds no JSON
  kPolicyAway = 8,     // the policy service does not answer
  kRefused = 9,        // the daemon or the policy service does not serve this user, or failed
};

// One line on stderr, in front of it the program's name.
template <class... Args>
void complain(fmt::format_string<Args...> format, Args&&... args) {
  const std::string text = "zorvctl: " + fmt::format(format, std::forward<Args>(args)...) + "\n";
  std::fwrite(text.data(), 1, text.size(), stderr);
}

// Why output got lost, the first time: main says so at the end, for every verb.
inline int output_error = 0;

// Standard output goes to a pager; and its user has seen enough, which is no failure.
inline bool output_is_paged = false;
inline bool output_unwanted = false;

inline bool note_output(bool written) {
  if (!written && output_is_paged && errno == EPIPE) {
    output_unwanted = true;
    std::clearerr(stdout);
    return true;
  }
  if (!written && output_error == 0) {
    output_error = errno;
  }
  return written;
}

// Text to stdout as it is, bytes and all. Both return false where it could not be written.
inline bool print(const std::string& text) {
  return note_output(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}
inline bool flush_output() {
  return note_output(std::fflush(stdout) == 0);
}

}  // namespace zorvctl
