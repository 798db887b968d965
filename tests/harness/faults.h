// A daemon that has to live with failing calls and small limits.
#pragma once

#include <string>
#include <vector>

#include "harness/daemon.h"
#include "harness/fault_plan.h"

namespace harness {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;  // whose allocator is another and keeps what was freed
#else
inline constexpr bool kSanitized = false;
#endif

long resident_kilobytes(pid_t process);

// zorvd behind what stands before it on the command line.
struct WrappedDaemon : Daemon {
  explicit WrappedDaemon(const std::vector<std::string>& before) : Daemon({}, before) {}
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

  // The call of that number from now on fails.
  void fail(pid_t process, Call call, int number, int error);
  // Whether the call failed since the last fail().
  bool clear();
  FaultPlan* plan() { return plan_; }

 private:
  std::string path_;
  FaultPlan* plan_;
};

}  // namespace harness
