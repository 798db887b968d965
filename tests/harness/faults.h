// A daemon that has to live with failing calls, small limits and broken disks.
#pragma once

#include <string>
#include <vector>

#include "harness/fault_plan.h"
#include "harness/process.h"

namespace harness {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;  // whose allocator is another and keeps what was freed
#else
inline constexpr bool kSanitized = false;
#endif

long resident_kilobytes(pid_t process);

// zorvd, started by what stands before it on the command line, which has to end in exec: `env`,
// `unshare` and the like. Serving when the constructor returns; ended with the object.
class WrappedDaemon {
 public:
  explicit WrappedDaemon(const std::vector<std::string>& before);
  int stop() { return process_.terminate(); }
  Process& process() { return process_; }
  pid_t pid() const { return process_.pid(); }

 private:
  Process process_;
};

// The plan of a process that has the shim; nothing fails before fail() and after clear().
class Faults {
 public:
  Faults();
  ~Faults();
  Faults(const Faults&) = delete;
  Faults& operator=(const Faults&) = delete;

  // What stands before a program's name to load the shim into it.
  std::vector<std::string> preload(bool interval_timer = false) const;

  void fail(pid_t process, Call call, int number, int error);
  // Whether the call failed since the last fail().
  bool clear();
  FaultPlan* plan() { return plan_; }

 private:
  std::string path_;
  FaultPlan* plan_;
};

// A shell command that is run before zorvd, in a mount namespace of its own; in it "$DB" is the
// folder of the database. Empty when this system lets nobody have one.
std::vector<std::string> in_mount_namespace(const std::string& command);
// Runs a shell command in the mount namespace of such a daemon; its exit status.
int run_in_namespace_of(pid_t process, const std::string& command);

}  // namespace harness
