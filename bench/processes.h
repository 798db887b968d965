// Programs that a measure runs, and what processes hold.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace bench {

// Runs a program to its end, its output going to a file; throws when it fails.
void run_program(const std::vector<std::string>& words);

// Waits until one detached program has ended that this process inherited.
void await_orphan();

double resident_bytes(pid_t pid);

// How much higher the two processes' resident memory stood at its highest during `work` than
// before, each at its own time. A memfd counts where it is mapped.
struct PeakGrowth {
  double caller;
  double server;
};
PeakGrowth peak_growth(pid_t caller, pid_t server, const std::function<void()>& work);

}  // namespace bench
