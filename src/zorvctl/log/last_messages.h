// Which messages of the log are wanted, and where the last of them begin: a long file is read from
// its end.
#pragma once

#include <sys/types.h>

#include <string>

#include "log_message.h"

namespace zorvctl {

struct MessageFilter {
  LogLevel level = LogLevel::debug;  // this one and above
  // As messages write their times; empty for none.
  std::string since;
  std::string until;

  // Text that stands before any message has no level and no time: it is wanted where nothing is
  // asked for.
  bool wants(const LogMessage& message) const;
  bool is_older(const LogMessage& message) const { return message.time < since; }
};

// The offset of the `count`th wanted message before `end`, or of the first of fewer; 0 for all. It
// is `end` where none is wanted. Once a whole block is older than the filter asks for, it looks no
// further. -1: the file cannot be read, errno says why.
off_t start_of_last(int file, off_t end, unsigned long long count, const MessageFilter& filter);

}  // namespace zorvctl
