// Which call of a process fails next. It lies in a file that the test and the process under test
// both have mapped; fault_shim.cpp, loaded in front of the C library, looks into it at each call.
#pragma once

#include <sys/types.h>

#include <atomic>

namespace harness {

enum class Call : int {
  none,
  accept,
  sendmsg,
  memfd_create,
  mmap,
  pwrite,
  allocation,  // malloc, calloc, realloc; not in a build with sanitizers
};

struct FaultPlan {
  std::atomic<pid_t> process;   // the others that have the shim loaded are left alone
  std::atomic<int> call;        // a Call
  std::atomic<int> calls_left;  // until the one that fails, that one included
  std::atomic<int> error;       // errno of the failure
  std::atomic<int> failures;    // that have happened
};

// In the environment of a process that loads the shim: the file of its plan, and, where it is set,
// that an interval timer interrupts the process every millisecond.
inline constexpr const char* kFaultPlanVariable = "ZORV_FAULT_PLAN";
inline constexpr const char* kIntervalTimerVariable = "ZORV_FAULT_TIMER";

// For a program that has the shim linked in.
void use_fault_plan(FaultPlan* plan);

}  // namespace harness
