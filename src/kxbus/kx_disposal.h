// Getting rid of what strangers send, without ever waiting for it.
//
// close(2) asks a file's file system, and one that a user runs (FUSE) may never answer; the last
// reference to a socket that lingers waits as well. So nothing that a refused caller attached is
// received: a read without room for descriptors drops them, and where there are some a child does
// it, which a lingering socket holds up instead of the server. What an allowed caller attached is
// looked at by a child before this process receives it.
//
// A stranger is whoever is neither root nor of this process's user. Children have closed all else,
// live for a second at most where the kernel lets them end, and are few.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>

#include "descriptor.h"

namespace kxbus {

class Disposal {
 public:
  // Answers a connection whose request need not be looked at, and closes it. What it has sent is
  // discarded first, and it cannot send more: closing with unread input would cost it the answer.
  void refuse(os::Descriptor connection, int status);

  // Closes a connection that has had its answer and may have sent more meanwhile.
  void close(os::Descriptor connection);

  // Whether the packet that waits has no descriptors but memory files and pipes.
  bool is_harmless(int connection);

 private:
  void discard_in_child(os::Descriptor connection, int status);

  // Process ids, 0 for none.
  std::array<pid_t, 32> discarding_{};  // in turns
  std::size_t turn_ = 0;
  std::array<pid_t, 8> looking_{};
};

}  // namespace kxbus
