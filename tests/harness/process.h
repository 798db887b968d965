// Functions and programs run by a test in processes of their own. None outlives its object or the
// test.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace harness {

// Asks again until `ready` is; false when it is not within 20 seconds.
template <class Ready>
bool eventually(Ready ready) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!ready()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Runs `body`, whose value is the exit status.
class Child {
 public:
  using Ready = std::function<void()>;
  explicit Child(const std::function<int()>& body);
  // Returns when the body has called what it is given, throws when it ended before.
  explicit Child(const std::function<int(const Ready&)>& body);
  ~Child();  // kills and reaps what still runs
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  void send(int signal_number) const;
  bool running();
  // The exit status, or 128 + the signal that ended it. A child that does not end is killed after
  // 20 seconds.
  int wait();
  // SIGTERM, then wait().
  int terminate();

 private:
  pid_t pid_;
  int status_ = -1;
  bool reaped_ = false;
};

// Runs a program (the first word is its path) with this process's environment.
class Process : public Child {
 public:
  explicit Process(const std::vector<std::string>& arguments);
};

struct Outcome {
  int status;  // as of Child::wait
  std::string out;
  std::string err;
};

// Runs a program to its end.
Outcome run(const std::vector<std::string>& arguments, const std::string& input = "");

}  // namespace harness
