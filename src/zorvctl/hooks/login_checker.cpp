#include "login_checker.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "display_text.h"
#include "exit_status.h"

namespace zorvctl {
namespace {

constexpr int kAccepted = 0;
constexpr int kDeferred = 2;
constexpr int kNotExecutable = 126;  // a shell's word for it
constexpr int kNotFound = 127;

}  // namespace

Verdict run_checker(const std::vector<std::string>& command) {
  std::vector<std::string> words = command;
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (const int error = posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ);
      error != 0) {
    complain("cannot run {}: {}", display_text(command[0]), std::strerror(error));
    return Verdict::broken;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      return Verdict::broken;
    }
  }
  if (!WIFEXITED(status)) {
    complain("{} was killed by signal {}", display_text(command[0]), WTERMSIG(status));
    return Verdict::broken;
  }
  switch (WEXITSTATUS(status)) {
    case kAccepted:
      return Verdict::accepted;
    case kDeferred:
      return Verdict::deferred;
    case kNotExecutable:
    case kNotFound:
      complain("{} could not run a program: exit status {}", display_text(command[0]),
               WEXITSTATUS(status));
      return Verdict::broken;
    default:
      return Verdict::refused;
  }
}

}  // namespace zorvctl
