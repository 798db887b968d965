// The floor of a bus exchange: what a call over a SEQPACKET connection of its own cannot do
// without.
//
// The caller: socket, connect, SO_PEERCRED, send, receive, close. The server: epoll_wait, accept,
// SO_PEERCRED, receive, send, close; only a request that is not there yet is waited for in epoll,
// so that a silent caller holds up nobody. A packet is 16 bytes of head and the body. There is no
// time limit, no check of the frame, no limit of connections, no error but the end of the program.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "harness/process.h"

namespace bench {

// Looks at a request's body and writes the reply's over it; the reply's length.
using RawAnswer = std::function<size_t(char* body, size_t length)>;

// One call to an abstract address: the reply's body, which stays until the next call.
std::string_view raw_call(const std::string& name, std::string_view body);

// A child process that serves for ever.
class RawServer {
 public:
  explicit RawServer(const RawAnswer& answer);

  std::string_view call(std::string_view body) const { return raw_call(name_, body); }
  pid_t pid() const { return child_.pid(); }

 private:
  static inline int count_ = 0;
  std::string name_;
  harness::Child child_;
};

}  // namespace bench
