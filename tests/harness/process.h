// Functions and programs in processes of their own, none of which outlives its object or the test.
#pragma once

#include <chrono>
#include <csignal>
#include <functional>
#include <optional>
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
  explicit Child(const std::function<int()>& body);
  ~Child();  // kills and reaps what still runs
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  void send(int signal_number) const { kill(pid_, signal_number); }
  bool running();
  // The exit status, or 128 + the signal that ended it: SIGKILL after 20 seconds.
  int wait();
  int stop() {
    send(SIGTERM);
    return wait();
  }

 private:
  pid_t pid_;
  std::optional<int> status_;
};

// Becomes a program, the first word being its path; 127 where it cannot.
int become(const std::vector<std::string>& arguments);

struct Process : Child {
  explicit Process(const std::vector<std::string>& arguments)
      : Child([&arguments] { return become(arguments); }) {}
};

struct Outcome {
  int status;  // as of Child::wait
  std::string out, err;
};

// Runs a program to its end.
Outcome run(const std::vector<std::string>& arguments, const std::string& input = "");

}  // namespace harness
