// Closing every descriptor from a number on, whatever the limit is.
#pragma once

#include <unistd.h>

namespace os {

// Makes system calls only, so it may run between fork or vfork and exec.
inline void close_from(unsigned first) {
  if (close_range(first, ~0U, 0) == 0) {
    return;
  }
  // A kernel before 5.9.
  const long limit = sysconf(_SC_OPEN_MAX);
  for (long fd = first; fd < limit; ++fd) {
    close(static_cast<int>(fd));
  }
}

}  // namespace os
