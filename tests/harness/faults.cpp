#include "harness/faults.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "harness/daemon.h"
#include "harness/test_root.h"

namespace harness {
namespace {

std::string proc(pid_t process, const char* name) {
  return "/proc/" + std::to_string(process) + "/" + name;
}

std::vector<std::string> with_daemon(std::vector<std::string> words) {
  words.push_back(program("zorvd"));
  return words;
}

std::string database_folder() {
  return std::filesystem::path(test_root() + kDatabase).parent_path();
}

// Root needs no user namespace; anybody else becomes root of one.
std::vector<std::string> unshare_words() {
  std::vector<std::string> words{"/usr/bin/unshare", "--mount"};
  if (geteuid() != 0) {
    words.emplace_back("--map-root-user");
  }
  return words;
}

}  // namespace

long resident_kilobytes(pid_t process) {
  std::ifstream file(proc(process, "statm"));
  long size = 0;
  long resident = 0;
  file >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

WrappedDaemon::WrappedDaemon(const std::vector<std::string>& before)
    : process_(with_daemon(before)) {
  if (!wait_until_serving("@/var/run/zorvd.sock")) {
    throw std::runtime_error("zorvd does not serve");
  }
}

Faults::Faults() : path_(test_root() + "/faults") {
  const int file = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  void* base = MAP_FAILED;
  if (file >= 0 && ::ftruncate(file, sizeof(FaultPlan)) == 0) {
    base = ::mmap(nullptr, sizeof(FaultPlan), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  }
  ::close(file);
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

std::vector<std::string> in_mount_namespace(const std::string& command) {
  std::vector<std::string> words = unshare_words();
  std::vector<std::string> trial = words;
  trial.emplace_back("/bin/true");
  if (!std::filesystem::exists(words[0]) || run(trial).status != 0) {
    return {};
  }
  words.insert(words.end(), {"/bin/sh", "-c",
                             "DB=" + database_folder() + "; { " + command + "; } && exec \"$0\""});
  return words;
}

int run_in_namespace_of(pid_t process, const std::string& command) {
  std::vector<std::string> words{"/usr/bin/nsenter", "--target", std::to_string(process),
                                 "--mount"};
  if (geteuid() != 0) {
    words.insert(words.end(), {"--user", "--preserve-credentials"});
  }
  words.insert(words.end(), {"/bin/sh", "-c", "DB=" + database_folder() + "; " + command});
  return run(words).status;
}

}  // namespace harness
