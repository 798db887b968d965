#include "harness/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "harness/test_root.h"

namespace harness {
namespace {

pid_t spawn(const std::vector<std::string>& arguments, int in, int out, int err) {
  std::vector<std::string> words = arguments;
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const std::array<int, 3> streams{in, out, err};
    for (int stream = 0; stream < 3; ++stream) {
      if (streams[static_cast<size_t>(stream)] >= 0) {
        dup2(streams[static_cast<size_t>(stream)], stream);
      }
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

int decode(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string slurp(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

Child::Child(const std::function<int()>& body) : pid_(fork()) {
  if (pid_ == 0) {
    _exit(body());
  }
}

Child::~Child() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    wait();
  }
}

int Child::wait() {
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return decode(status);
}

Process::Process(const std::vector<std::string>& arguments) : pid_(spawn(arguments, -1, -1, -1)) {}

Process::~Process() {
  if (!reaped_ && pid_ > 0) {
    kill(pid_, SIGKILL);
    wait();
  }
}

void Process::send(int signal_number) const {
  kill(pid_, signal_number);
}

int Process::wait() {
  if (!reaped_) {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    status_ = decode(status);
    reaped_ = true;
  }
  return status_;
}

int Process::terminate() {
  send(SIGTERM);
  return wait();
}

bool Process::running() {
  int status = 0;
  if (!reaped_ && waitpid(pid_, &status, WNOHANG) == pid_) {
    status_ = decode(status);
    reaped_ = true;
  }
  return !reaped_;
}

Outcome run(const std::vector<std::string>& arguments, const std::string& input) {
  // Through files: neither side can block on a full pipe.
  static int number = 0;
  const std::string base = test_root() + "/run." + std::to_string(++number);
  std::ofstream(base + ".in", std::ios::binary) << input;
  const int in = open((base + ".in").c_str(), O_RDONLY | O_CLOEXEC);
  const int out = open((base + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const int err = open((base + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const pid_t pid = spawn(arguments, in, out, err);
  close(in);
  close(out);
  close(err);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  Outcome outcome{decode(status), slurp(base + ".out"), slurp(base + ".err")};
  for (const char* suffix : {".in", ".out", ".err"}) {
    std::filesystem::remove(base + suffix);
  }
  return outcome;
}

}  // namespace harness
