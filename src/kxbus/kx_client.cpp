// The calling side: one connection, one request, one reply, one deadline.
#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>

#include "kx_address.h"
#include "kx_allow.h"
#include "kx_io.h"
#include "kx_peer.h"
#include "kx_transport.h"
#include "kxbus.h"

namespace kxbus {

using os::Descriptor;

namespace {

constexpr std::int64_t kNanoseconds = 1'000'000'000;
constexpr std::int64_t kNanosecondsOfMs = 1'000'000;
// How long a connect waits for room in the backlog before it asks again: the kernel's wake-up can
// get lost when another waiter that received it was killed.
constexpr std::int64_t kBacklogPause = 100'000'000;

class Deadline {
 public:
  explicit Deadline(std::int64_t nanoseconds) : end_(now() + nanoseconds) {}
  std::int64_t remaining() const { return std::max<std::int64_t>(end_ - now(), 0); }

 private:
  static std::int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * kNanoseconds + time.tv_nsec;
  }

  std::int64_t end_;
};

int status_of_error(int error) {
  switch (error) {
    case ECONNREFUSED:
    case ENOENT:
    case ENOTDIR:
      return KX_NOT_READY;
    case EACCES:
    case EPERM:
      return KX_IS_REJECT;
    case EMFILE:
    case ENFILE:
    case ETOOMANYREFS:
      return KX_IS_BUSY;
    case EBADF:
      return KX_IS_INVALID;
    default:
      return KX_IO_FAILURE;
  }
}

bool make_blocking(int socket) {
  return fcntl(socket, F_SETFL, 0) == 0;
}

// Limits how long the next operation of one direction waits.
bool limit_wait(int socket, int option, std::int64_t nanoseconds) {
  timeval limit{};
  limit.tv_sec = static_cast<time_t>(nanoseconds / kNanoseconds);
  limit.tv_usec = static_cast<suseconds_t>(nanoseconds % kNanoseconds / 1000);
  if (limit.tv_sec == 0 && limit.tv_usec == 0) {
    limit.tv_usec = 1;  // 0 would mean for ever
  }
  return setsockopt(socket, SOL_SOCKET, option, &limit, sizeof limit) == 0;
}

// A full backlog makes a non-blocking connect fail at once, so the waiting is done by the kernel.
int wait_for_backlog(int socket, const Address& address, const Deadline& deadline) {
  if (!make_blocking(socket)) {
    return KX_IO_FAILURE;
  }
  for (std::int64_t remaining = deadline.remaining(); remaining > 0;
       remaining = deadline.remaining()) {
    if (!limit_wait(socket, SO_SNDTIMEO, std::min(remaining, kBacklogPause))) {
      return KX_IO_FAILURE;
    }
    if (connect(socket, address.get(), address.length) == 0) {
      return KX_SUCCESS;
    }
    if (errno != EAGAIN && errno != EINTR) {
      return status_of_error(errno);
    }
  }
  return KX_IS_BUSY;
}

int open_connection(const Address& address, const Deadline& deadline, Descriptor& ret_connection) {
  Descriptor connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!connection.valid()) {
    return status_of_error(errno);
  }
  if (connect(connection.get(), address.get(), address.length) != 0) {
    const int status = errno == EAGAIN || errno == EINTR
                           ? wait_for_backlog(connection.get(), address, deadline)
                           : status_of_error(errno);
    if (status != KX_SUCCESS) {
      return status;
    }
  }
  // Whoever holds the name could be anybody, and would get the request.
  Peer listener;
  if (!read_peer(connection.get(), listener) ||
      (!is_own_kind(listener) && !is_allowed_listener(address.service, listener))) {
    return KX_IS_REJECT;
  }
  ret_connection = std::move(connection);
  return KX_SUCCESS;
}

int send_request(int socket, std::string_view method, Buffer& body, int passed) {
  RequestFrame frame{method, body.size(), !body.in_packet(), passed >= 0};
  for (;;) {
    int descriptors[2];
    std::size_t count = 0;
    if (frame.body_in_memfd) {
      if (const int status = body.seal(); status != KX_SUCCESS) {
        return status;
      }
      descriptors[count++] = body.memfd();
    }
    if (passed >= 0) {
      descriptors[count++] = passed;
    }
    HeaderBytes header;
    encode_request(frame, header);
    const std::span<const char> inline_body =
        frame.body_in_memfd ? std::span<const char>() : std::span(body.block(), body.size());
    const int error = send_packet(socket, header, inline_body, method, {descriptors, count});
    if (error == EMSGSIZE && !frame.body_in_memfd) {
      frame.body_in_memfd = true;  // a system with small socket buffers
      continue;
    }
    // A server that has refused already does not receive; its reason can be read.
    return error == 0 || error == EPIPE || error == ECONNRESET ? KX_SUCCESS
                                                               : status_of_error(error);
  }
}

int receive_reply(int socket, Buffer& body, const Deadline& deadline) {
  Incoming incoming;
  if (!make_blocking(socket)) {
    return KX_IO_FAILURE;
  }
  for (;;) {
    const std::int64_t remaining = deadline.remaining();
    if (remaining > 0 && !limit_wait(socket, SO_RCVTIMEO, remaining)) {
      return KX_IO_FAILURE;
    }
    const Wait wait = remaining > 0 ? Wait::as_long_as_the_socket_says : Wait::no;
    const Receipt receipt = receive_packet(socket, body.packet_space(), wait, incoming);
    if (receipt == Receipt::packet) {
      break;
    }
    if (receipt == Receipt::closed) {
      return KX_IO_FAILURE;
    }
    if (receipt == Receipt::nothing_yet && remaining == 0) {
      return KX_TIMEOUT;
    }
  }
  ReplyFrame frame;
  if (decode_reply(incoming.packet(body.packet_space()), frame) != KX_SUCCESS) {
    body.clear();
    return KX_IO_FAILURE;
  }
  if (frame.status != KX_SUCCESS) {
    return frame.status;
  }
  if (frame.body_in_memfd) {
    const int status = body.accept_memfd(incoming.descriptors[0], frame.body_length);
    if (status != KX_SUCCESS) {
      body.clear();
      return KX_IO_FAILURE;
    }
    return KX_SUCCESS;
  }
  body.accept_reply(frame.body_length);
  return KX_SUCCESS;
}

int call(const char* address_text, const char* method, kx_io* io, std::int64_t timeout,
         int passed) try {
  const std::string_view name = method != nullptr ? method : "";
  Address address;
  if (io == nullptr || io->on_loan || name.empty() || name.size() > kLargestMethod || timeout < 0 ||
      passed < -1 || resolve_address(address_text, address) != 0) {
    return KX_IS_INVALID;
  }
  const Deadline deadline(timeout);
  Descriptor connection;
  if (const int status = open_connection(address, deadline, connection); status != KX_SUCCESS) {
    return status;
  }
  if (const int status = send_request(connection.get(), name, io->buffer, passed);
      status != KX_SUCCESS) {
    return status;
  }
  return receive_reply(connection.get(), io->buffer, deadline);
} catch (const std::bad_alloc&) {
  return KX_IO_FAILURE;
}

}  // namespace
}  // namespace kxbus

int kx_call(const char* address, const char* method, kx_io* io, int timeout_s, int fd) {
  return kxbus::call(address, method, io, timeout_s * kxbus::kNanoseconds, fd);
}

int kx_call_ms(const char* address, const char* method, kx_io* io, int timeout_ms, int fd) {
  return kxbus::call(address, method, io, timeout_ms * kxbus::kNanosecondsOfMs, fd);
}
