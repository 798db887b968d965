// The real programs in the test's own root, and what they left behind there.
#pragma once

#include <string>
#include <vector>

#include "harness/process.h"
#include "harness/test_root.h"

namespace harness {

inline constexpr const char* kLogFile = "/var/log/network/ZORV.log";
inline constexpr const char* kNotifications = "/var/log/network/notifications.jsonl";
inline constexpr const char* kDatabase = "/etc/config/zorv/zorv.db";

// The path of a program of this build, or of the one that ZORV_TEST_PROGRAMS names.
std::string program(const std::string& name);
void install_notify();  // where the daemon looks for it

// zorvd in the foreground, and platformd, serving when the constructor returns.
struct Daemon : Process {
  explicit Daemon(const std::vector<std::string>& options = {});
  Process& process() { return *this; }
};
struct PlatformDaemon : Process {
  PlatformDaemon();
};

Outcome zorvctl(const std::vector<std::string>& words, const std::string& input = "");

// Waits until somebody listens on a bus address.
bool wait_until_serving(const char* address);

// The lines of the log file, one for each prefix even where a text had no newline.
struct LogLine {
  std::string level, module, function;
  std::string text;  // its newline included, where it has one
};
std::vector<LogLine> log_lines();
// Those of one module, as "LEVEL text"; the new ones are those since the last call.
std::vector<std::string> log_texts(const std::string& module);
std::vector<std::string> new_log_texts(const std::string& module);
inline bool log_holds(const std::string& text) {
  return read_file(kLogFile).find(text) != std::string::npos;
}

// The notifications, once there are at least `count` of them (or after some seconds, fewer).
std::vector<std::string> notifications(size_t count);

// One statement on the database file, its rows as "a|b|c".
std::vector<std::string> sql(const std::string& statement);

// One row for each number i from `first` to `last`; `values` may name it.
void insert_rows(const std::string& table, int last, const std::string& columns,
                 const std::string& values, int first = 1);

}  // namespace harness
