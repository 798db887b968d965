// Programs started by a test: run to their end with their output, or kept running and ended by
// their process id. Nothing started here outlives its object.
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

// Runs `body` in a child; its value is the exit status. The parent's own gtest is left alone.
class Child {
 public:
  explicit Child(const std::function<int()>& body);
  ~Child();  // kills and reaps it
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  int wait();  // as of Process::wait

 private:
  pid_t pid_;
};

class Process {
 public:
  // Starts `arguments` (the first is the program's path) with this process's environment.
  explicit Process(const std::vector<std::string>& arguments);
  ~Process();  // kills and reaps what still runs
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  void send(int signal_number) const;
  // Waits for its end: the exit status, or 128 + the signal that ended it.
  int wait();
  // SIGTERM, then wait().
  int terminate();
  bool running();

 private:
  pid_t pid_;
  int status_ = -1;
  bool reaped_ = false;
};

struct Outcome {
  int status;  // as of Process::wait
  std::string out;
  std::string err;
};

// Runs a program to its end.
Outcome run(const std::vector<std::string>& arguments, const std::string& input = "");

}  // namespace harness
