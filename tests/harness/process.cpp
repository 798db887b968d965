#include "harness/process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "harness/test_root.h"

namespace harness {

Child::Child(const std::function<int()>& body) : pid_(fork()) {
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(body());
  }
}

Child::~Child() {
  if (running()) {
    send(SIGKILL);
    wait();
  }
}

bool Child::running() {
  int status = 0;
  if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) {
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return !status_;
}

int Child::wait() {
  if (!eventually([this] { return !running(); })) {
    send(SIGKILL);
    wait();
  }
  return *status_;
}

int become(const std::vector<std::string>& arguments) {
  std::vector<char*> words;
  for (const std::string& word : arguments) {
    words.push_back(const_cast<char*>(word.data()));
  }
  words.push_back(nullptr);
  execv(words[0], words.data());
  return 127;
}

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
  return {child.wait(), read_file(files[1]), read_file(files[2])};
}

}  // namespace harness
