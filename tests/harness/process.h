// Programs started by a test: run to their end with their output, or kept running and ended by
// their process id. Nothing started here outlives its object.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace harness {

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
