// The buffer that callers and handlers hold. A handler's is on loan: it belongs to the server and
// carries the connection of the caller, which is closed as soon as the caller has its answer.
#pragma once

#include "descriptor.h"
#include "kx_buffer.h"

struct kx_io {
  kxbus::Buffer buffer;
  bool on_loan = false;
  os::Descriptor caller;
  // Of a caller that is a stranger to the server, which closes its connection itself.
  bool of_stranger = false;
  std::size_t most_shared = 0;  // bytes that it may be sent in a memfd
  std::size_t shared = 0;       // bytes that it was sent so
  os::Descriptor answered;

  // Answers a caller that still waits with a bare status.
  void finish(int status);
  void end_call();
};
