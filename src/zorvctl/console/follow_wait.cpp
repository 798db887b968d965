#include "follow_wait.h"

#include <poll.h>
#include <unistd.h>

#include <ctime>

namespace zorvctl {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
volatile sig_atomic_t told_to_end = 0;

void note_end(int /*number*/) {
  told_to_end = 1;
}

}  // namespace

bool is_told_to_end() {
  return told_to_end != 0;
}

FollowWait::FollowWait() {
  sigemptyset(&signals_);
  struct sigaction action {};
  action.sa_handler = note_end;
  action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
  for (const int number : kSignals) {
    sigaddset(&signals_, number);
    struct sigaction old {};
    // nohup's and a shell's background jobs have theirs ignored.
    if (sigaction(number, nullptr, &old) == 0 && old.sa_handler != SIG_IGN) {
      sigaction(number, &action, nullptr);
    }
  }
}

bool FollowWait::pause(std::chrono::milliseconds length) {
  sigset_t before;
  sigprocmask(SIG_BLOCK, &signals_, &before);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(length);
  const timespec time{
      static_cast<time_t>(seconds.count()),
      static_cast<decltype(timespec::tv_nsec)>(std::chrono::nanoseconds(length - seconds).count())};
  pollfd output{STDOUT_FILENO, 0, 0};
  // A signal that came before is still to be delivered, or has left its note.
  const bool output_gone = told_to_end == 0 && ppoll(&output, 1, &time, &before) > 0;
  sigprocmask(SIG_SETMASK, &before, nullptr);
  if (output_gone) {
    raise(SIGPIPE);
  }
  return told_to_end == 0 && !output_gone;
}

}  // namespace zorvctl
