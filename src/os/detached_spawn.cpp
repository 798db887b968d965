#include "detached_spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "close_from.h"

namespace os {
namespace {

constexpr unsigned kFirstClosed = 3;  // standard input, output and error stay

// A sanitizer keeps one return address for all vforks of a thread: one within the other would
// return to the wrong place.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kVforkNests = false;
#else
constexpr bool kVforkNests = true;
#endif

// What follows runs in a process that shares its parent's memory: system calls only, no allocation,
// no locks.

void reset_signal_handlers() {
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action {};
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_DFL &&
        action.sa_handler != SIG_IGN) {
      action = {};
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

[[noreturn]] void run_program(const char* file, const char* const* arguments,
                              const sigset_t& mask) {
  reopen(STDIN_FILENO, O_RDONLY);
  reopen(STDOUT_FILENO, O_WRONLY);
  reopen(STDERR_FILENO, O_WRONLY);
  reset_signal_handlers();
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  execvp(file, const_cast<char* const*>(arguments));
  _exit(1);
}

[[noreturn]] void run_intermediate(const char* file, const char* const* arguments,
                                   const sigset_t& mask) {
  close_from(kFirstClosed);
  const pid_t program = kVforkNests ? vfork() : fork();  // NOLINT(clang-analyzer-unix.Vfork)
  if (program == 0) {
    run_program(file, arguments, mask);  // NOLINT(clang-analyzer-unix.Vfork)
  }
  _exit(program < 0 ? 1 : 0);
}

}  // namespace

void spawn_detached(const char* file, const char* const* arguments) {
  const int saved_errno = errno;
  sigset_t all;
  sigset_t mask;
  sigfillset(&all);
  // A handler of this process must not run in a child that shares its memory.
  pthread_sigmask(SIG_SETMASK, &all, &mask);
  const pid_t intermediate = vfork();
  if (intermediate == 0) {
    run_intermediate(file, arguments, mask);  // NOLINT(clang-analyzer-unix.Vfork)
  }
  while (intermediate > 0 && waitpid(intermediate, nullptr, 0) < 0 && errno == EINTR) {
  }
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  errno = saved_errno;
}

}  // namespace os
