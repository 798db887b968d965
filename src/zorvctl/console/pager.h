// Long output page by page, as journalctl shows it.
#pragma once

#include <sys/types.h>

namespace zorvctl {

// While it runs, standard output goes to $ZORV_PAGER, else $PAGER, else less; to none where the
// variable is empty or "cat". Only one at a time. Its user may leave before the end: what is
// printed from then on is dropped, and output_unwanted of exit_status.h says so.
class Pager {
 public:
  // None where it is not wanted or cannot be started.
  explicit Pager(bool wanted);
  ~Pager() { wait(); }
  Pager(const Pager&) = delete;
  Pager& operator=(const Pager&) = delete;

  // Ends the output and waits until the user has read it. Standard output is the terminal again.
  void wait();

 private:
  void start(const char* command);

  pid_t pid_ = -1;
  int terminal_ = -1;  // standard output as it was
};

}  // namespace zorvctl
