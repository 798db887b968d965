// How long a call of the daemon takes: what tells a call that got no answer from one that got a bad
// one, where the client function does not.
#pragma once

#include <chrono>

namespace zorvctl {

class CallTime {
 public:
  // Five seconds are all that a call may take, and it cannot give up earlier. An answer of the very
  // last moment is taken for none.
  bool ran_out() const {
    return std::chrono::steady_clock::now() - begun_ >= std::chrono::milliseconds(4950);
  }

 private:
  std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();
};

}  // namespace zorvctl
