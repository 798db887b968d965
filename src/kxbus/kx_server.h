// The serving side: one thread, one epoll loop, one request at a time.
//
// A connection that was accepted is read at once, which usually is all: the request is there, is
// dispatched and answered, and the connection is closed without ever having been waited for. Only a
// connection whose request is not there yet is kept, in one of 256 slots, for at most 5 seconds.
// When there are too many, the one that has been pending for longest is refused.
//
// Nothing a caller does makes the loop wait: every operation on a socket is non-blocking.
//
// run() and everything it calls belong to one thread; stop() may be called from anywhere, a signal
// handler included.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "descriptor.h"
#include "kx_address.h"
#include "kx_disposal.h"
#include "kx_io.h"
#include "kx_listener.h"
#include "kx_log.h"
#include "kx_peer.h"
#include "kx_transport.h"
#include "kxbus.h"

struct kx_server {
 public:
  kx_server(const kxbus::Address& address, kx_method_callback callback)
      : callback_(callback), name_(address.service) {}

  // 0 or an error number.
  int open(const kxbus::Address& address, int backlog);
  int run();
  void stop();

 private:
  // A connection whose request has not come yet.
  struct Pending {
    os::Descriptor connection;
    uid_t uid = 0;
    bool stranger = false;
    std::uint32_t generation = 0;
    std::int64_t until = 0;     // milliseconds, monotonic
    std::uint64_t arrival = 0;  // counts up: tells those apart that came in one millisecond
  };

  // Whether to look if the caller has hung up since its request came.
  enum class Hangup { check, skip };

  bool watch(int descriptor, std::uint64_t tag, std::uint32_t events);
  int wait_time() const;
  void serve_pending(std::uint64_t tag, Hangup hangup);
  void accept_one();
  void accept_with_spare();
  bool admits(int connection, const kxbus::Peer& peer);
  bool serve(os::Descriptor& connection, bool stranger, Hangup hangup);
  void dispatch(os::Descriptor connection, bool stranger, kxbus::Incoming& incoming,
                const kxbus::RequestFrame& frame);
  void refuse(os::Descriptor connection, int status);
  void keep(os::Descriptor connection, uid_t uid, bool stranger);
  os::Descriptor take(Pending& pending);
  void evict_longest(const uid_t* uid);
  void expire();
  void pause_everybody();
  void serve_the_last();
  std::size_t most_shared();

  kx_method_callback callback_;
  std::string name_;
  kxbus::Listener listener_;
  os::Descriptor epoll_;
  os::Descriptor wake_;
  os::Descriptor spare_;  // given up to refuse a caller when there are no more descriptors
  std::atomic<bool> stopping_{false};
  bool paused_ = false;               // run() has ended
  bool exhausted_ = false;            // the last accept found no descriptor
  std::int64_t listen_again_at_ = 0;  // milliseconds; the listener is not watched until then
  std::array<Pending, 256> pending_;
  std::size_t pending_count_ = 0;
  std::uint64_t arrivals_ = 0;
  std::int64_t next_expiry_ = INT64_MAX;  // no slot expires earlier
  kxbus::LogBudget log_budget_;
  kxbus::Disposal disposal_;
  // Strangers' replies in memfds, each until it has been read or its caller is gone.
  struct Unread {
    os::Descriptor connection;
    std::size_t bytes = 0;
  };
  std::array<Unread, 32> unread_;
  kx_io request_;
};
