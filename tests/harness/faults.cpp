#include "harness/faults.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "descriptor.h"

namespace harness {

long resident_kilobytes(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/statm");
  long size = 0;
  long resident = 0;
  file >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

Faults::Faults() : path_(test_root() + "/faults") {
  write_file("/faults", std::string(sizeof(FaultPlan), '\0'));
  const os::Descriptor file(::open(path_.c_str(), O_RDWR | O_CLOEXEC));
  void* const base =
      ::mmap(nullptr, sizeof(FaultPlan), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (base == MAP_FAILED) {
    throw std::runtime_error("no fault plan");
  }
  plan_ = static_cast<FaultPlan*>(base);
}

Faults::~Faults() {
  munmap(plan_, sizeof(FaultPlan));
}

std::vector<std::string> Faults::preload(bool interval_timer) const {
  const char* options = getenv("ASAN_OPTIONS");
  std::vector<std::string> words{
      "/usr/bin/env", std::string("LD_PRELOAD=") + ZORV_FAULT_SHIM,
      std::string(kFaultPlanVariable) + "=" + path_,
      // The shim must come before the sanitizer's own stand-ins.
      std::string("ASAN_OPTIONS=verify_asan_link_order=0:") + (options != nullptr ? options : "")};
  if (interval_timer) {
    words.push_back(std::string(kIntervalTimerVariable) + "=1");
  }
  return words;
}

void Faults::fail(pid_t process, Call call, int number, int error) {
  plan_->call = static_cast<int>(Call::none);
  plan_->process = process;
  plan_->calls_left = number;
  plan_->error = error;
  plan_->failures = 0;
  plan_->call = static_cast<int>(call);
}

bool Faults::clear() {
  plan_->call = static_cast<int>(Call::none);
  return plan_->failures > 0;
}

}  // namespace harness
