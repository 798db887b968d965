// The serving side: one thread, one epoll loop, one request at a time.
//
// A connection that was accepted is read at once, which usually is all: the request is there, is
// dispatched and answered, and the connection is closed without ever having been waited for. Only a
// connection whose request is not there yet is kept, in one of 256 slots, for at most 5 seconds.
// When there are too many, the one that has been silent for longest gives way.
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

#include "kx_address.h"
#include "kx_allow.h"
#include "kx_descriptor.h"
#include "kx_io.h"
#include "kx_listener.h"
#include "kx_log.h"
#include "kx_peer.h"
#include "kx_transport.h"
#include "kxbus.h"

struct kx_server {
 public:
  kx_server(const kxbus::Address& address, kx_method_callback callback)
      : callback_(callback), allow_(address.service), name_(address.service) {}

  // 0 or an error number.
  int open(const kxbus::Address& address, int backlog);
  int run();
  void stop();

 private:
  // A connection whose request has not come yet.
  struct Silent {
    kxbus::Descriptor connection;
    uid_t uid = 0;
    std::uint32_t generation = 0;
    std::int64_t until = 0;     // milliseconds, monotonic
    std::uint64_t arrival = 0;  // counts up: tells those apart that came in one millisecond
  };

  // Whether the caller may have hung up while its request waited here.
  enum class Caller { present, perhaps_gone };

  bool watch(int descriptor, std::uint64_t tag, std::uint32_t events);
  int wait_time() const;
  void serve_silent(std::uint64_t tag, Caller caller);
  void accept_one();
  void accept_with_spare();
  bool admits(int connection, const kxbus::Peer& peer);
  bool serve(kxbus::Descriptor& connection, Caller caller);
  void dispatch(kxbus::Descriptor connection, kxbus::Incoming& incoming,
                const kxbus::RequestFrame& frame);
  void keep(kxbus::Descriptor connection, uid_t uid);
  kxbus::Descriptor take(Silent& silent);
  void give_way(const uid_t* uid);
  void expire();
  void pause_everybody();

  kx_method_callback callback_;
  kxbus::AllowList allow_;
  std::string name_;
  kxbus::Listener listener_;
  kxbus::Descriptor epoll_;
  kxbus::Descriptor wake_;
  kxbus::Descriptor spare_;  // given up to refuse a caller when there are no more descriptors
  std::atomic<bool> stopping_{false};
  bool paused_ = false;          // run() has ended
  bool exhausted_ = false;       // the last accept found no descriptor
  std::int64_t deaf_until_ = 0;  // the listener is not watched before; 0 when it is
  std::array<Silent, 256> silent_;
  std::size_t silent_count_ = 0;
  std::uint64_t arrivals_ = 0;
  std::int64_t next_expiry_ = INT64_MAX;  // no slot expires earlier
  kxbus::LogBudget log_budget_;
  kx_io request_;
};
