#include "processes.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "harness/test_root.h"
#include "measure.h"

namespace bench {
namespace {

int wait_for(pid_t pid) {
  int status = -1;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

// The value of "KEY: VALUE kB" in the process's status.
double status_bytes(pid_t pid, std::string_view key) {
  std::ifstream status(fmt::format("/proc/{}/status", pid));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(key)) {
      return std::stod(line.substr(key.size() + 1)) * 1024;
    }
  }
  return 0;
}

}  // namespace

void run_program(const std::vector<std::string>& words) {
  static const std::string output = harness::test_root() + "/output";
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  const pid_t pid = vfork();
  if (pid == 0) {
    const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  require(wait_for(pid) == 0, words[0] + " failed");
}

void await_orphan() {
  wait_for(-1);
}

double resident_bytes(pid_t pid) {
  return status_bytes(pid, "VmRSS");
}

PeakGrowth peak_growth(pid_t caller, pid_t server, const std::function<void()>& work) {
  for (const pid_t pid : {caller, server}) {
    std::ofstream(fmt::format("/proc/{}/clear_refs", pid)) << "5";  // forgets the peak
  }
  const PeakGrowth before{resident_bytes(caller), resident_bytes(server)};
  work();
  return {status_bytes(caller, "VmHWM") - before.caller,
          status_bytes(server, "VmHWM") - before.server};
}

}  // namespace bench
