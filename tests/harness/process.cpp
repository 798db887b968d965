#include "harness/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "harness/test_root.h"

namespace harness {
namespace {

pid_t start(const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(body());
  }
  return pid;
}

// The body of a child that becomes a program.
std::function<int()> program_of(const std::vector<std::string>& arguments) {
  return [arguments] {
    std::vector<char*> words;
    for (const std::string& word : arguments) {
      words.push_back(const_cast<char*>(word.data()));
    }
    words.push_back(nullptr);
    execv(words[0], words.data());
    return 127;
  };
}

}  // namespace

Child::Child(const std::function<int()>& body) : pid_(start(body)) {}

Child::Child(const std::function<int(const Ready&)>& body) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  pid_ = start([&] {
    close(ends[0]);
    return body([&] {
      if (write(ends[1], "+", 1) != 1) {
        _exit(1);
      }
      close(ends[1]);
    });
  });
  close(ends[1]);
  char ready = 0;
  const bool is_ready = read(ends[0], &ready, 1) == 1;
  close(ends[0]);
  if (!is_ready) {
    wait();
    throw std::runtime_error("the child was not ready");
  }
}

Child::~Child() {
  if (!reaped_) {
    send(SIGKILL);
    wait();
  }
}

void Child::send(int signal_number) const {
  kill(pid_, signal_number);
}

bool Child::running() {
  int status = 0;
  if (!reaped_ && waitpid(pid_, &status, WNOHANG) == pid_) {
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    reaped_ = true;
  }
  return !reaped_;
}

int Child::wait() {
  const auto ended = [this] { return !running(); };
  if (!eventually(ended)) {
    send(SIGKILL);
    eventually(ended);
  }
  return status_;
}

int Child::terminate() {
  send(SIGTERM);
  return wait();
}

Process::Process(const std::vector<std::string>& arguments) : Child(program_of(arguments)) {}

Outcome run(const std::vector<std::string>& arguments, const std::string& input) {
  // Through files: neither side can block on a full pipe.
  static int number = 0;
  const std::string base = "/run." + std::to_string(++number);
  const std::string files[] = {base + ".in", base + ".out", base + ".err"};
  write_file(files[0], input);
  Child child([&] {
    for (int stream = 0; stream < 3; ++stream) {
      const int flags = stream == 0 ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC;
      dup2(open((test_root() + files[stream]).c_str(), flags | O_CLOEXEC, 0600), stream);
    }
    return program_of(arguments)();
  });
  const int status = child.wait();
  Outcome outcome{status, read_file(files[1]), read_file(files[2])};
  for (const std::string& file : files) {
    std::filesystem::remove(test_root() + file);
  }
  return outcome;
}

}  // namespace harness
