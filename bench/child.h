// A process forked from this one to play the other side: a floor's server, a peer's service.
//
// Nothing outlives its object, nor the death of this process.
#pragma once

#include <sched.h>
#include <sys/types.h>

#include <functional>

namespace bench {

class Child {
 public:
  // Runs `body` in the child, which calls ready() when it can be used; returns then. The child ends
  // with `body` or is killed with the object.
  using Ready = std::function<void()>;
  explicit Child(const std::function<void(const Ready& ready)>& body);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

// Keeps this process, and whom it starts meanwhile, on the processor where it is. Where the
// scheduler puts the two sides of an exchange, or a program that is started, decides more about its
// time than what they do: waking an idle processor of a virtual machine takes up to 0.7 ms.
class OneProcessor {
 public:
  OneProcessor();
  ~OneProcessor();
  OneProcessor(const OneProcessor&) = delete;
  OneProcessor& operator=(const OneProcessor&) = delete;

 private:
  cpu_set_t before_;
};

// Makes this process the one that inherits detached programs, so that it can wait for them.
void inherit_orphans();
// Waits until one detached program has ended.
void await_orphan();

}  // namespace bench
