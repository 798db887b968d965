#include "harness/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "harness/test_root.h"

namespace harness {
namespace {

int become(const std::vector<std::string>& arguments) {
  std::vector<char*> words(arguments.size() + 1);
  std::transform(arguments.begin(), arguments.end(), words.begin(),
                 [](const std::string& word) { return const_cast<char*>(word.data()); });
  execv(words[0], words.data());
  return 127;
}

}  // namespace

Child::Child(const std::function<int()>& body) : pid_(fork()) {
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(body());
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
  if (!eventually([this] { return !running(); })) {
    send(SIGKILL);
    wait();
  }
  return status_;
}

int Child::stop() {
  send(SIGTERM);
  return wait();
}

Process::Process(const std::vector<std::string>& arguments)
    : Child([&arguments] { return become(arguments); }) {}

Outcome run(const std::vector<std::string>& arguments, const std::string& input) {
  // Through files: neither side can block on a full pipe.
  static int count = 0;
  const std::string base = "/run." + std::to_string(++count);
  const std::string files[] = {base + ".in", base + ".out", base + ".err"};
  write_file(files[0], input);
  Child child([&] {
    for (int stream = 0; stream < 3; ++stream) {
      const int flags = stream == 0 ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC;
      dup2(open((test_root() + files[stream]).c_str(), flags | O_CLOEXEC, 0600), stream);
    }
    return become(arguments);
  });
  const int status = child.wait();
  return {status, read_file(files[1]), read_file(files[2])};
}

}  // namespace harness
