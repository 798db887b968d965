// When to ask the daemon again whether its rows changed.
//
// A question costs the daemon a walk over the table's ids, 30 ms of a full one, and 1.5 KB of the
// service's log, so it is better not asked for nothing. The daemon logs each statement that changes
// a table in front of running it, and serves one request at a time: who has read the log to its end
// and found no such statement since the last question would get the same answer again. So the log
// is what is looked at, and the daemon is asked when it changed something, and every few seconds
// for safety. Where the log cannot be read or is written elsewhere, it is asked twice a second.
//
// However much happens, the daemon is kept busy for at most a fifth of the time, unless a row would
// then be shown more than a second late.
#pragma once

#include <chrono>
#include <string>

#include "file_tail.h"

namespace zorvctl {

class ChangeWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // Before the first question: what is changed later is noticed.
  ChangeWatch();

  // How long the last question took, and whether it was answered.
  void asked(Clock::duration cost, bool answered);
  bool is_due();

 private:
  void read_log();

  FileTail log_;
  std::string log_end_;  // a statement may have come in part
  Clock::time_point earliest_;
  Clock::time_point latest_;
  bool changed_ = false;
  bool was_served_ = false;  // the log shows that the daemon answered a query
};

}  // namespace zorvctl
