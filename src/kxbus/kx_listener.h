// The listening socket of a service, and its claim on the name.
//
// An abstract name is claimed by binding it. A path is claimed by a lock on "PATH.lock", held as
// long as the service listens; a socket that was left behind by a dead service is then removed.
// Path and lock file disappear with the listener. Anybody may connect to the socket: who is served
// is decided by credentials.
//
// A service manager may have claimed the name before and handed the listening socket over
// (LISTEN_FDS, LISTEN_PID in the environment, from descriptor 3 on). It then stays the manager's:
// whoever calls while the service restarts waits in its backlog.
#pragma once

#include <sys/types.h>

#include <string>

#include "descriptor.h"
#include "kx_address.h"

namespace kxbus {

class Listener {
 public:
  Listener() = default;
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener();

  // 0, or an error number; EADDRINUSE when somebody listens there.
  int open(const Address& address, int backlog);
  int socket() const { return socket_.get(); }
  bool is_handed_over() const { return handed_over_; }

 private:
  os::Descriptor socket_;
  os::Descriptor lock_;
  bool handed_over_ = false;
  std::string lock_path_;
  std::string bound_path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace kxbus
