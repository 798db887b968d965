#include "kx_log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "kxbus.h"

namespace {
std::atomic<kx_log_callback> log_callback{nullptr};
}  // namespace

void kx_set_log(kx_log_callback callback) {
  log_callback = callback;
}

namespace kxbus {

void log_line(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (kx_log_callback callback = log_callback) {
    callback(text);
  } else {
    fprintf(stderr, "kxbus: %s\n", text);
  }
}

bool LogBudget::spend() {
  constexpr int kLines = 32;
  constexpr time_t kPeriod = 10;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  if (now.tv_sec >= period_end_) {
    if (unwritten_ > 0) {
      log_line("%lu more lines were not written", unwritten_);
    }
    period_end_ = now.tv_sec + kPeriod;
    left_ = kLines;
    unwritten_ = 0;
  }
  if (left_ == 0) {
    ++unwritten_;
    return false;
  }
  --left_;
  return true;
}

}  // namespace kxbus
