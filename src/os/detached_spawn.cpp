#include "detached_spawn.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "close_from.h"

namespace os {
namespace {

constexpr size_t kStackSize = 32 * 1024;
constexpr unsigned kFirstClosed = 3;  // standard input, output and error stay

struct Launch {
  const char* file;
  const char* const* arguments;
  char* program_stack_top;
  sigset_t mask;
};

// Only what a process that shares its parent's memory may do: system calls, no allocation, no
// locks.

void reset_signal_handlers() {
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action {};
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_DFL &&
        action.sa_handler != SIG_IGN) {
      action = {};
      action.sa_handler = SIG_DFL;
      sigaction(number, &action, nullptr);
    }
  }
}

void reopen(int stream, int flags) {
  const int fd = open("/dev/null", flags);
  if (fd >= 0 && fd != stream) {
    dup2(fd, stream);
    close(fd);
  }
}

int run_program(void* argument) {
  const auto* launch = static_cast<const Launch*>(argument);
  reopen(STDIN_FILENO, O_RDONLY);
  reopen(STDOUT_FILENO, O_WRONLY);
  reopen(STDERR_FILENO, O_WRONLY);
  reset_signal_handlers();
  sigprocmask(SIG_SETMASK, &launch->mask, nullptr);
  execvp(launch->file, const_cast<char* const*>(launch->arguments));
  _exit(1);
}

int run_intermediate(void* argument) {
  const auto* launch = static_cast<const Launch*>(argument);
  os::close_from(kFirstClosed);
  const int program =
      clone(run_program, launch->program_stack_top, CLONE_VM | CLONE_VFORK | SIGCHLD, argument);
  _exit(program < 0 ? 1 : 0);
}

}  // namespace

void spawn_detached(const char* file, const char* const* arguments) {
  alignas(16) char stacks[2 * kStackSize];
  const int saved_errno = errno;
  Launch launch{file, arguments, stacks + kStackSize, {}};
  sigset_t all;
  sigfillset(&all);
  // A handler of this process must not run in a child that shares its memory.
  pthread_sigmask(SIG_SETMASK, &all, &launch.mask);
  const int intermediate =
      clone(run_intermediate, stacks + 2 * kStackSize, CLONE_VM | CLONE_VFORK | SIGCHLD, &launch);
  if (intermediate > 0) {
    while (waitpid(intermediate, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &launch.mask, nullptr);
  errno = saved_errno;
}

}  // namespace os
