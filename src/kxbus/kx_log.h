// The library's own few lines: what an administrator must know and no caller is told. Lines end
// without a newline. Callable on any thread.
#pragma once

#include <ctime>

namespace kxbus {

__attribute__((format(printf, 1, 2))) void log_line(const char* format, ...);

// Keeps lines that callers can provoke from flooding the log: a few per period, the rest counted.
class LogBudget {
 public:
  // False when the line is not to be written.
  bool spend();

 private:
  time_t period_end_ = 0;
  int left_ = 0;
  unsigned long unwritten_ = 0;
};

}  // namespace kxbus
