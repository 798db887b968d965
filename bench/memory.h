// What a process holds, as the kernel tells it.
#pragma once

#include <sys/types.h>

namespace bench {

double resident_bytes(pid_t pid);
// The most that was resident since forget_peak().
double peak_resident_bytes(pid_t pid);
void forget_peak(pid_t pid);

// Runs `work` and tells how much higher the two processes' resident memory stood at its highest
// than before, each at its own time. A memfd counts where it is mapped.
struct PeakGrowth {
  double caller;
  double server;
};
template <class Work>
PeakGrowth peak_growth(pid_t caller, pid_t server, Work&& work) {
  forget_peak(caller);
  forget_peak(server);
  const PeakGrowth before{resident_bytes(caller), resident_bytes(server)};
  work();
  return {peak_resident_bytes(caller) - before.caller, peak_resident_bytes(server) - before.server};
}

}  // namespace bench
