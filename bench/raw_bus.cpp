#include "raw_bus.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "descriptor.h"
#include "harness/test_root.h"
#include "measure.h"

namespace bench {
namespace {

constexpr size_t kHead = 16;

struct alignas(8) Packet {
  char bytes[64 * 1024];
};

// bind() or connect().
template <class Attach>
bool attach(Attach function, const os::Descriptor& socket, const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
  const size_t length = offsetof(sockaddr_un, sun_path) + 1 + name.size();
  return function(socket.get(), reinterpret_cast<const sockaddr*>(&address),
                  static_cast<socklen_t>(length)) == 0;
}

void check_peer(int connection) {
  ucred peer{};
  socklen_t length = sizeof peer;
  require(getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
              (peer.uid == 0 || peer.uid == geteuid()),
          "a peer of another user");
}

// False when the request is not there yet.
bool serve_one(int connection, const RawAnswer& answer) {
  static Packet packet;
  const ssize_t received = recv(connection, packet.bytes, sizeof packet, 0);
  if (received > 0) {
    const size_t length = answer(packet.bytes + kHead, static_cast<size_t>(received) - kHead);
    send(connection, packet.bytes, kHead + length, MSG_NOSIGNAL);
  }
  return received >= 0 || errno != EAGAIN;
}

int serve(const os::Descriptor& listener, const RawAnswer& answer) {
  const os::Descriptor epoll(epoll_create1(EPOLL_CLOEXEC));
  const auto watch = [&epoll](int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    epoll_ctl(epoll.get(), EPOLL_CTL_ADD, descriptor, &event);
  };
  watch(listener.get());
  for (;;) {
    epoll_event event{};
    if (epoll_wait(epoll.get(), &event, 1, -1) != 1) {
      continue;
    }
    int connection = event.data.fd;
    if (connection == listener.get()) {
      connection = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      check_peer(connection);
    }
    if (serve_one(connection, answer)) {
      close(connection);
    } else {
      watch(connection);
    }
  }
}

// The listener is there when this returns, and then the child's alone.
harness::Child start(const std::string& name, const RawAnswer& answer) {
  const os::Descriptor listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  require(attach(bind, listener, name) && listen(listener.get(), 128) == 0, "no raw listener");
  return harness::Child([&]() noexcept { return serve(listener, answer); });
}

}  // namespace

std::string_view raw_call(const std::string& name, std::string_view body) {
  static Packet packet;
  const os::Descriptor connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  require(attach(connect, connection, name), "no raw server");
  check_peer(connection.get());
  memcpy(packet.bytes + kHead, body.data(), body.size());
  require(send(connection.get(), packet.bytes, kHead + body.size(), MSG_NOSIGNAL) > 0,
          "no request was sent");
  const ssize_t received = recv(connection.get(), packet.bytes, sizeof packet, 0);
  require(received > 0, "no reply came");
  return {packet.bytes + kHead, static_cast<size_t>(received) - kHead};
}

RawServer::RawServer(const RawAnswer& answer)
    : name_(harness::test_root() + "/raw." + std::to_string(++count_)),
      child_(start(name_, answer)) {}

}  // namespace bench
