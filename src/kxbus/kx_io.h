// The buffer that callers and handlers hold. A handler's is on loan: it belongs to the server and
// carries the connection of the caller, which is closed as soon as the caller has its answer.
#pragma once

#include "descriptor.h"
#include "kx_buffer.h"

struct kx_io {
  kxbus::Buffer buffer;
  bool on_loan = false;
  os::Descriptor caller;

  // Answers a caller that still waits with a bare status.
  void finish(int status);
};
