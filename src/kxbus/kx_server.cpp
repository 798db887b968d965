#include "kx_server.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "kx_allow.h"
#include "kx_signal.h"

using kxbus::log_line;
using os::Descriptor;

namespace {

constexpr int kBacklogUnit = 32;
constexpr std::size_t kPendingPerUser = 64;
constexpr std::int64_t kPendingTime = 5000;
constexpr std::int64_t kListenPause = 100;
constexpr std::int64_t kLastTime = 200;  // for the requests of those accepted, before the end
// One event each: a descriptor that a child still holds, being between fork and exec, stays
// pending.
constexpr std::uint32_t kOnce = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;

// What an event is about: one of these, or generation and slot of a pending connection.
constexpr std::uint64_t kListenerTag = ~std::uint64_t{0};
constexpr std::uint64_t kWakeTag = kListenerTag - 1;
constexpr std::uint64_t kSignalTag = kListenerTag - 2;

std::int64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
  return time.tv_sec * std::int64_t{1000} + time.tv_nsec / 1'000'000;
}

// A caller that has hung up wants nothing any more. One that has sent a second packet breaks the
// protocol: closing with that unread would cost it the answer to the first.
int fault_behind_request(int connection) {
  char byte = 0;
  const ssize_t more = recv(connection, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT);
  return more < 0 && errno == EAGAIN ? KX_SUCCESS : KX_IS_INVALID;
}

// Who listens on an address that is taken.
struct HolderText {
  char text[64] = "";

  void look(const kxbus::Address& address) {
    const Descriptor probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    kxbus::Peer peer;
    if (connect(probe.get(), address.get(), address.length) == 0 &&
        kxbus::read_peer(probe.get(), peer)) {
      snprintf(text, sizeof text, ", held by uid %u pid %d", static_cast<unsigned>(peer.uid),
               static_cast<int>(peer.pid));
    }
  }
};

}  // namespace

int kx_server::open(const kxbus::Address& address, int backlog) {
  if (const int error = listener_.open(address, backlog); error != 0) {
    return error;
  }
  const int signals = kxbus::signal_descriptor();
  epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
  wake_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  spare_.reset(fcntl(wake_.get(), F_DUPFD_CLOEXEC, 0));
  if (signals < 0 || !epoll_.valid() || !spare_.valid() || !watch(wake_.get(), kWakeTag, EPOLLIN) ||
      !watch(signals, kSignalTag, EPOLLIN) || !watch(listener_.socket(), kListenerTag, EPOLLIN)) {
    return errno;
  }
  request_.on_loan = true;
  return request_.buffer.allocate_cleared() ? 0 : ENOMEM;
}

bool kx_server::watch(int descriptor, std::uint64_t tag, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = tag;
  return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

void kx_server::stop() {
  const std::uint64_t one = 1;
  stopping_ = true;
  [[maybe_unused]] const ssize_t written = write(wake_.get(), &one, sizeof one);
}

int kx_server::run() {
  if (paused_) {
    return KX_IS_PAUSED;
  }
  int status = KX_SUCCESS;
  while (!stopping_) {
    epoll_event events[64];
    const int count = epoll_wait(epoll_.get(), events, std::size(events), wait_time());
    if (count < 0 && errno != EINTR) {
      status = KX_IO_FAILURE;
      break;
    }
    bool accepting = false;
    for (int i = 0; i < count && !stopping_; ++i) {
      const std::uint64_t tag = events[i].data.u64;
      if (tag == kListenerTag) {
        accepting = true;
      } else if (tag == kSignalTag) {
        kxbus::deliver_signals();
      } else if (tag != kWakeTag) {
        // The first event of a batch is fresh: no other request ran since epoll_wait, so a look for
        // a hang-up is spared.
        const bool fresh = i == 0 && (events[i].events & (EPOLLRDHUP | EPOLLHUP)) == 0;
        serve_pending(tag, fresh ? Hangup::skip : Hangup::check);
      }
    }
    if (accepting && !stopping_) {
      accept_one();
    }
    if ((pending_count_ > 0 || listen_again_at_ != 0) && !stopping_) {
      expire();
    }
  }
  pause_everybody();
  return status;
}

int kx_server::wait_time() const {
  std::int64_t first = listen_again_at_ != 0 ? listen_again_at_ : INT64_MAX;
  if (pending_count_ > 0) {
    first = std::min(first, next_expiry_);
  }
  return first == INT64_MAX ? -1 : static_cast<int>(std::max<std::int64_t>(first - now(), 0));
}

void kx_server::accept_one() {
  Descriptor connection(
      accept4(listener_.socket(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!connection.valid()) {
    if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
      accept_with_spare();
    }
    return;
  }
  exhausted_ = false;
  if (!spare_.valid()) {
    spare_.reset(fcntl(wake_.get(), F_DUPFD_CLOEXEC, 0));
  }
  kxbus::Peer peer;
  if (!kxbus::read_peer(connection.get(), peer)) {
    return;
  }
  const bool stranger = !kxbus::is_own_kind(peer);
  if (stranger && !admits(connection.get(), peer)) {
    refuse(std::move(connection), KX_IS_REJECT);
  } else if (!serve(connection, stranger, Hangup::check)) {
    keep(std::move(connection), peer.uid, stranger);
  }
}

// Nothing can be accepted without a free descriptor, but the listener stays readable, so the loop
// would spin: the spare one is given up to refuse the caller, and where even that fails the
// listener is not watched for a while.
void kx_server::accept_with_spare() {
  if (!exhausted_ && log_budget_.spend()) {
    log_line("%s: no descriptor or memory for a caller: %s", name_.c_str(), strerror(errno));
  }
  exhausted_ = true;
  spare_.reset();
  Descriptor connection(
      accept4(listener_.socket(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  const bool accepted = connection.valid();
  if (accepted) {
    refuse(std::move(connection), KX_IS_BUSY);
  }
  spare_.reset(fcntl(wake_.get(), F_DUPFD_CLOEXEC, 0));
  if (!accepted) {
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, listener_.socket(), nullptr);
    listen_again_at_ = now() + kListenPause;
  }
}

bool kx_server::admits(int connection, const kxbus::Peer& peer) {
  try {
    if (kxbus::is_allowed_caller(name_, connection, peer, log_budget_)) {
      return true;
    }
  } catch (const std::bad_alloc&) {
    return false;
  }
  if (log_budget_.spend()) {
    log_line("%s: denied uid %u pid %d", name_.c_str(), static_cast<unsigned>(peer.uid),
             static_cast<int>(peer.pid));
  }
  return false;
}

// Serves the request of a connection and closes it. False when the request is not there yet.
bool kx_server::serve(Descriptor& connection, bool stranger, Hangup hangup) {
  if (stranger && !disposal_.is_harmless(connection.get())) {
    refuse(std::move(connection), KX_IS_INVALID);
    return true;
  }
  kxbus::Incoming incoming;
  const std::span<char> space = request_.buffer.packet_space();
  switch (kxbus::receive_packet(connection.get(), space, kxbus::Wait::no, incoming)) {
    case kxbus::Receipt::nothing_yet:
    case kxbus::Receipt::interrupted:
      return false;
    case kxbus::Receipt::closed:
      refuse(std::move(connection), KX_IS_INVALID);
      return true;
    case kxbus::Receipt::packet:
      break;
  }
  request_.buffer.received(incoming.received - std::min(incoming.received, kxbus::kHeaderSize));
  kxbus::RequestFrame frame;
  int fault = kxbus::decode_request(incoming.packet(space), frame);
  if (fault == KX_SUCCESS && hangup == Hangup::check) {
    fault = fault_behind_request(connection.get());
  }
  if (fault == KX_SUCCESS) {
    dispatch(std::move(connection), stranger, incoming, frame);
    return true;
  }
  refuse(std::move(connection), incoming.out_of_descriptors ? KX_IS_BUSY : fault);
  return true;
}

void kx_server::refuse(Descriptor connection, int status) {
  disposal_.refuse(std::move(connection), status);
}

void kx_server::dispatch(Descriptor connection, bool stranger, kxbus::Incoming& incoming,
                         const kxbus::RequestFrame& frame) {
  char method[kxbus::kLargestMethod + 1];
  method[frame.method.copy(method, kxbus::kLargestMethod)] = '\0';
  if (frame.body_in_memfd) {
    const int status = request_.buffer.accept_memfd(incoming.descriptors[0], frame.body_length);
    if (status != KX_SUCCESS) {
      refuse(std::move(connection), status);
      return;
    }
  } else {
    request_.buffer.accept_request(frame.body_length);
  }
  int passed = -1;
  if (frame.descriptor_passed) {
    passed = incoming.descriptors[incoming.descriptor_count - 1].release();
    kxbus::stop_lingering(passed);
  }
  request_.caller = std::move(connection);
  request_.of_stranger = stranger;
  request_.most_shared = stranger ? most_shared() : 0;
  request_.shared = 0;
  try {
    callback_(method, &request_, passed);
  } catch (...) {
    request_.finish(KX_IS_REJECT);
  }
  request_.finish(KX_IS_INVALID);
  request_.buffer.clear();
  if (!stranger) {
    return;
  }
  const auto place = std::find_if(unread_.begin(), unread_.end(),
                                  [](const Unread& unread) { return !unread.connection.valid(); });
  if (request_.shared > 0 && place != unread_.end()) {
    shutdown(request_.answered.get(), SHUT_RD);
    *place = {std::move(request_.answered), request_.shared};
  } else {
    disposal_.close(std::move(request_.answered));
  }
}

// What strangers may be sent in memfds, all of them together. A memfd that nobody reads is memory
// that nobody gets back, so those that were not read count.
std::size_t kx_server::most_shared() {
  std::size_t left = kxbus::kLargestBody;
  bool place = false;
  for (Unread& unread : unread_) {
    int waiting = 0;
    pollfd peer{unread.connection.get(), 0, 0};
    if (unread.connection.valid() &&
        ((ioctl(unread.connection.get(), SIOCOUTQ, &waiting) == 0 && waiting == 0) ||
         (poll(&peer, 1, 0) > 0 && (peer.revents & POLLHUP) != 0))) {
      disposal_.close(std::move(unread.connection));
    }
    if (unread.connection.valid()) {
      left -= std::min(left, unread.bytes);
    } else {
      place = true;
    }
  }
  return place ? left : 0;
}

void kx_server::keep(Descriptor connection, uid_t uid, bool stranger) {
  const auto of_user = [uid](const Pending& pending) {
    return pending.connection.valid() && pending.uid == uid;
  };
  if (uid != 0 && pending_count_ >= kPendingPerUser &&
      std::count_if(pending_.begin(), pending_.end(), of_user) >= std::ptrdiff_t{kPendingPerUser}) {
    evict_longest(&uid);
  } else if (pending_count_ == pending_.size()) {
    evict_longest(nullptr);
  }
  const auto slot = std::find_if(pending_.begin(), pending_.end(), [](const Pending& pending) {
    return !pending.connection.valid();
  });
  const auto index = static_cast<std::uint64_t>(slot - pending_.begin());
  const std::uint64_t tag = std::uint64_t{++slot->generation} << 32 | index;
  if (!watch(connection.get(), tag, kOnce)) {
    refuse(std::move(connection), KX_IS_BUSY);
    return;
  }
  slot->connection = std::move(connection);
  slot->uid = uid;
  slot->stranger = stranger;
  slot->until = now() + kPendingTime;
  slot->arrival = ++arrivals_;
  next_expiry_ = std::min(next_expiry_, slot->until);
  ++pending_count_;
}

Descriptor kx_server::take(Pending& pending) {
  --pending_count_;
  return std::move(pending.connection);
}

void kx_server::serve_pending(std::uint64_t tag, Hangup hangup) {
  Pending& pending = pending_[tag & 0xFFFFFFFF];
  if (!pending.connection.valid() || pending.generation != tag >> 32) {
    return;  // it was given up while this event waited
  }
  Descriptor connection = take(pending);
  if (serve(connection, pending.stranger, hangup)) {
    return;
  }
  epoll_event event{.events = kOnce, .data = {.u64 = tag}};
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, connection.get(), &event) == 0) {
    pending.connection = std::move(connection);
    ++pending_count_;
  }
}

// Answers the connection that has been pending for longest, to free its slot; of one user's where
// `uid` is given.
void kx_server::evict_longest(const uid_t* uid) {
  Pending* longest = nullptr;
  for (Pending& pending : pending_) {
    if (pending.connection.valid() && (uid == nullptr || pending.uid == *uid) &&
        (longest == nullptr || pending.arrival < longest->arrival)) {
      longest = &pending;
    }
  }
  if (longest == nullptr) {
    return;
  }
  Descriptor connection = take(*longest);
  if (!serve(connection, longest->stranger, Hangup::check)) {
    refuse(std::move(connection), KX_IS_BUSY);
  }
}

void kx_server::expire() {
  const std::int64_t time = now();
  if (listen_again_at_ != 0 && time >= listen_again_at_) {
    listen_again_at_ = watch(listener_.socket(), kListenerTag, EPOLLIN) ? 0 : time + kListenPause;
  }
  if (pending_count_ == 0 || time < next_expiry_) {
    return;
  }
  next_expiry_ = INT64_MAX;
  for (Pending& pending : pending_) {
    if (pending.connection.valid() && pending.until > time) {
      next_expiry_ = std::min(next_expiry_, pending.until);
    } else if (pending.connection.valid() && !stopping_) {
      Descriptor connection = take(pending);
      if (!serve(connection, pending.stranger, Hangup::check)) {
        refuse(std::move(connection), KX_IS_BUSY);
      }
    }
  }
}

// Whoever is connected gets an answer, whoever comes later finds nobody. Where the listening socket
// was handed over, they wait in it for the next to serve, and who was accepted is served.
void kx_server::pause_everybody() {
  paused_ = true;
  if (listener_.is_handed_over()) {
    serve_the_last();
  } else {
    shutdown(listener_.socket(), SHUT_RDWR);
  }
  for (Pending& pending : pending_) {
    if (pending.connection.valid()) {
      refuse(take(pending), KX_IS_PAUSED);
    }
  }
  spare_.reset();
  while (!listener_.is_handed_over()) {
    Descriptor connection(
        accept4(listener_.socket(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (connection.valid()) {
      refuse(std::move(connection), KX_IS_PAUSED);
    } else if (errno != EINTR && errno != ECONNABORTED) {
      return;
    }
  }
}

// An honest caller sends as soon as it is connected.
void kx_server::serve_the_last() {
  const std::int64_t end = now() + kLastTime;
  for (Pending& pending : pending_) {
    bool waiting = pending.connection.valid();
    while (waiting) {
      pollfd request{pending.connection.get(), POLLIN, 0};
      const auto time = static_cast<int>(std::max<std::int64_t>(end - now(), 0));
      waiting = poll(&request, 1, time) < 0 && errno == EINTR;
    }
    if (pending.connection.valid()) {
      Descriptor connection = take(pending);
      if (!serve(connection, pending.stranger, Hangup::check)) {
        refuse(std::move(connection), KX_IS_PAUSED);
      }
    }
  }
}

kx_server* kx_create(const char* address, int backlog_units, int dispatchers,
                     kx_method_callback callback) {
  if (backlog_units < 1 || backlog_units > 128 || dispatchers != 1 || callback == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  int error = 0;
  HolderText holder;
  try {
    kxbus::Address resolved;
    error = kxbus::resolve_address(address, resolved);
    if (error == 0) {
      auto server = std::make_unique<kx_server>(resolved, callback);
      error = server->open(resolved, backlog_units * kBacklogUnit);
      if (error == 0) {
        return server.release();
      }
      holder.look(resolved);
    }
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  }
  log_line("cannot serve \"%.120s\": %s%s", address != nullptr ? address : "", strerror(error),
           error == EADDRINUSE ? holder.text : "");
  errno = error;
  return nullptr;
}

int kx_start(kx_server* server) {
  return server != nullptr ? server->run() : KX_IS_INVALID;
}

void kx_stop(kx_server* server) {
  if (server != nullptr) {
    server->stop();
  }
}

void kx_free(kx_server* server) {
  const std::unique_ptr<kx_server> owned(server);
}
