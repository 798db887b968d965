#include "pager.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string_view>

#include "display_text.h"
#include "exit_status.h"

namespace zorvctl {
namespace {

// Empty for less, or what is there in its place; null for no pager.
const char* pager_command() {
  for (const char* name : {"ZORV_PAGER", "PAGER"}) {
    if (const char* const command = std::getenv(name)) {
      const std::string_view text = command;
      return text.empty() || text == "cat" ? nullptr : command;
    }
  }
  return "";
}

[[noreturn]] void become_pager(const char* command) {
  std::signal(SIGPIPE, SIG_DFL);
  setenv("LESS", "FRSXMK", 1);
  if (is_utf8_locale()) {
    setenv("LESSCHARSET", "utf-8", 1);
  }
  if (*command != '\0') {
    execl("/bin/sh", "sh", "-c", command, nullptr);
  }
  for (const char* program : {"less", "more", "cat"}) {
    execlp(program, program, nullptr);
  }
  _exit(kFailed);
}

}  // namespace

Pager::Pager(bool wanted) {
  if (const char* const command = wanted ? pager_command() : nullptr) {
    start(command);
  }
}

void Pager::start(const char* command) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return;
  }
  std::fflush(stdout);
  terminal_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
  pid_ = terminal_ >= 0 ? fork() : -1;
  if (pid_ == 0) {
    dup2(ends[0], STDIN_FILENO);
    become_pager(command);
  }
  if (pid_ > 0) {
    std::signal(SIGPIPE, SIG_IGN);
    dup2(ends[1], STDOUT_FILENO);
    output_is_paged = true;
  }
  close(ends[0]);
  close(ends[1]);
}

void Pager::wait() {
  if (pid_ > 0) {
    flush_output();
    dup2(terminal_, STDOUT_FILENO);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    output_is_paged = false;
  }
  pid_ = -1;
  if (terminal_ >= 0) {
    close(terminal_);
    terminal_ = -1;
  }
}

}  // namespace zorvctl
