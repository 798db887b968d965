// The pauses of a command that goes on until it is told to end: by SIGINT, SIGTERM or SIGHUP, or by
// whoever reads its output and goes away.
//
// From the first wait on a first signal only ends the next pause, so that what is in hand is
// finished; a second one ends the program. One object a program.
#pragma once

#include <chrono>
#include <csignal>

namespace zorvctl {

// Whether such a signal came: work in hand that takes long can stop.
bool is_told_to_end();

class FollowWait {
 public:
  FollowWait();

  // False once the command is to end. A reader that went away ends the program as a write to it
  // would: by SIGPIPE, unless that is ignored.
  bool pause(std::chrono::milliseconds length);

 private:
  sigset_t signals_{};
};

}  // namespace zorvctl
