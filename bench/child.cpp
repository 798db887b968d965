#include "child.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <stdexcept>

namespace bench {

Child::Child(const std::function<void(const Ready& ready)>& body) {
  int ends[2];
  if (pipe(ends) != 0) {
    throw std::runtime_error("no pipe");
  }
  fflush(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(ends[0]);
    int status = 0;
    try {
      body([&ends] {
        [[maybe_unused]] const ssize_t written = write(ends[1], "r", 1);
        close(ends[1]);
      });
    } catch (const std::exception& failure) {
      fprintf(stderr, "bench: %s\n", failure.what());
      status = 1;
    }
    _exit(status);
  }
  close(ends[1]);
  char letter = 0;
  const ssize_t got = read(ends[0], &letter, 1);
  close(ends[0]);
  if (got != 1) {
    throw std::runtime_error("a child process did not start");
  }
}

Child::~Child() {
  kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

OneProcessor::OneProcessor() {
  sched_getaffinity(0, sizeof before_, &before_);
  cpu_set_t here;
  CPU_ZERO(&here);
  CPU_SET(sched_getcpu(), &here);
  sched_setaffinity(0, sizeof here, &here);
}

OneProcessor::~OneProcessor() {
  sched_setaffinity(0, sizeof before_, &before_);
}

void inherit_orphans() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
}

void await_orphan() {
  while (waitpid(-1, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace bench
