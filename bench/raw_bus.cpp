#include "raw_bus.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>

#include "descriptor.h"

namespace bench {
namespace {

struct Address {
  explicit Address(const std::string& name) {
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, name.data(), name.size());
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }

  sockaddr_un address{};
  socklen_t length;
};

void require(bool held, const char* what) {
  if (!held) {
    throw std::runtime_error(what);
  }
}

void check_peer(int connection) {
  ucred peer{};
  socklen_t length = sizeof peer;
  require(getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
              (peer.uid == 0 || peer.uid == geteuid()),
          "a peer of another user");
}

// Receives what fits and, when asked for, one descriptor.
ssize_t receive(int connection, char* packet, int* ret_descriptor) {
  if (ret_descriptor == nullptr) {
    return recv(connection, packet, kRawPacket, 0);
  }
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  iovec part{packet, kRawPacket};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t received = recvmsg(connection, &message, MSG_CMSG_CLOEXEC);
  const cmsghdr* rights = CMSG_FIRSTHDR(&message);
  require(rights != nullptr, "no descriptor came");
  memcpy(ret_descriptor, CMSG_DATA(rights), sizeof(int));
  return received;
}

void send_descriptor(int connection, char* packet, int descriptor) {
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  iovec part{packet, kRawHead};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* rights = CMSG_FIRSTHDR(&message);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(sizeof(int));
  memcpy(CMSG_DATA(rights), &descriptor, sizeof(int));
  require(sendmsg(connection, &message, MSG_NOSIGNAL) > 0, "no descriptor was sent");
}

size_t exchange(const std::string& name, char* packet, size_t length, int* ret_descriptor) {
  const Address address(name);
  const os::Descriptor connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  require(connect(connection.get(), address.get(), address.length) == 0, "no raw server");
  check_peer(connection.get());
  require(send(connection.get(), packet, length, MSG_NOSIGNAL) > 0, "no request was sent");
  const ssize_t received = receive(connection.get(), packet, ret_descriptor);
  require(received > 0, "no reply came");
  return static_cast<size_t>(received);
}

// The server's loop. `serve` reads a request and answers it; false when it is not there yet.
template <class Serve>
void serve_with(const std::string& name, const std::function<void()>& ready, Serve serve) {
  const Address address(name);
  const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  require(bind(listener, address.get(), address.length) == 0 && listen(listener, 128) == 0,
          "no raw listener");
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  const auto watch = [epoll](int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event);
  };
  watch(listener);
  ready();
  for (;;) {
    epoll_event event{};
    if (epoll_wait(epoll, &event, 1, -1) != 1) {
      continue;
    }
    int connection = event.data.fd;
    if (connection == listener) {
      connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (connection < 0) {
        continue;
      }
      check_peer(connection);
      if (!serve(connection)) {
        watch(connection);
        continue;
      }
    } else {
      serve(connection);
    }
    close(connection);
  }
}

}  // namespace

void serve_raw(const std::string& name, const std::function<void()>& ready,
               const RawAnswer& answer) {
  alignas(8) static char packet[kRawPacket];
  serve_with(name, ready, [&](int connection) {
    const ssize_t received = recv(connection, packet, sizeof packet, 0);
    if (received < 0 && errno == EAGAIN) {
      return false;
    }
    if (received > 0) {
      send(connection, packet, answer(packet, static_cast<size_t>(received)), MSG_NOSIGNAL);
    }
    return true;
  });
}

void serve_raw_descriptors(const std::string& name, const std::function<void()>& ready,
                           const RawDescriptorAnswer& answer) {
  alignas(8) static char packet[kRawPacket];
  serve_with(name, ready, [&](int connection) {
    const ssize_t received = recv(connection, packet, sizeof packet, 0);
    if (received < 0 && errno == EAGAIN) {
      return false;
    }
    if (received > 0) {
      const int descriptor = answer(packet, static_cast<size_t>(received));
      send_descriptor(connection, packet, descriptor);
      close(descriptor);
    }
    return true;
  });
}

size_t raw_call(const std::string& name, char* packet, size_t length) {
  return exchange(name, packet, length, nullptr);
}

int raw_call_for_descriptor(const std::string& name, char* packet, size_t length) {
  int descriptor = -1;
  exchange(name, packet, length, &descriptor);
  return descriptor;
}

}  // namespace bench
