#include "memory.h"

#include <cstdlib>
#include <fstream>
#include <string>

namespace bench {
namespace {

double status_value(pid_t pid, const std::string& key) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(key)) {
      return strtod(line.c_str() + key.size(), nullptr) * 1024;
    }
  }
  return 0;
}

}  // namespace

double resident_bytes(pid_t pid) {
  return status_value(pid, "VmRSS:");
}

double peak_resident_bytes(pid_t pid) {
  return status_value(pid, "VmHWM:");
}

void forget_peak(pid_t pid) {
  std::ofstream("/proc/" + std::to_string(pid) + "/clear_refs") << "5";
}

}  // namespace bench
