// The log facility: one line, appended to a file that every process of the VPN service shares.
//
// A line is "DATE TIME PID [LEVEL] MODULE [LINE] FUNCTION:" and the call site's own text. No
// newline is added: a text carries its own, and one without it lets the next line go on behind it.
//
// There is no logger object and no writer thread. The log file is opened, written with one write(2)
// and closed for each line, so lines of several processes never mix and a rotated or deleted file
// is found again at once. Nothing fails visibly: a line that cannot be written is lost.
//
// Settings are changed only while one thread logs; with that, logging is safe from any thread.
#pragma once

#include <atomic>

inline constexpr const char* kDefaultLogFile = "/var/log/network/ZORV.log";
inline constexpr const char* kLogLockFile = "/var/lock/zorv_log.lck";

enum class LogLevel : int { debug = 10, info = 20, warn = 30, error = 40 };

// Where lines go: any other number writes nothing.
inline constexpr int kLogToStdout = 0;
inline constexpr int kLogToFile = 1;

extern int __cur_level__;       // threshold: lines of lower levels are dropped; starts at debug
extern int __cur_type__;        // destination, starts at kLogToFile
extern char __log_file__[256];  // plain path (rooted when opened); "" writes nothing

// A source module that logs: one instance a file, named log_module, with its own lock descriptor.
struct LogModule {
  const char* name;
  std::atomic<int> _iot_lock_fd_{-1};
};

// The place a line speaks of.
struct LogSite {
  LogModule& module;
  int line;
  const char* function;
};

inline bool log_wanted(LogLevel level) {
  return __cur_level__ <= static_cast<int>(level);
}

// Writes one line; errno is kept. Called through the macros below, which skip unwanted levels
// without evaluating the arguments.
void log_write(const LogSite& site, LogLevel level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#define ZORV_SITE(module)                                  \
  LogSite {                                                \
    (module), __LINE__, static_cast<const char*>(__func__) \
  }

#define ZORV_HERE ZORV_SITE(log_module)

#define ZORV_LOG_AT(site, level, ...)                  \
  do {                                                 \
    if (log_wanted(LogLevel::level)) {                 \
      log_write((site), LogLevel::level, __VA_ARGS__); \
    }                                                  \
  } while (false)

// A line of the file it stands in.
#define ZORV_LOG(level, ...) ZORV_LOG_AT(ZORV_HERE, level, __VA_ARGS__)

// A line of shared code that speaks for another module.
#define ZORV_LOG_FOR(module, level, ...) ZORV_LOG_AT(ZORV_SITE(module), level, __VA_ARGS__)
