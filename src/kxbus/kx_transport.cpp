#include "kx_transport.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kxbus.h"

namespace kxbus {

using os::Descriptor;

namespace {

// A connection that is aborted has nothing to linger for, whatever its sender does meanwhile.
void discard(Descriptor descriptor) {
  sockaddr nobody{};
  nobody.sa_family = AF_UNSPEC;
  static_cast<void>(connect(descriptor.get(), &nobody, sizeof nobody));
  stop_lingering(descriptor.get());
}

}  // namespace

void stop_lingering(int descriptor) {
  const linger not_at_all{};
  setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &not_at_all, sizeof not_at_all);
}

Incoming::~Incoming() {
  for (Descriptor& descriptor : descriptors) {
    if (descriptor.valid()) {
      discard(std::move(descriptor));
    }
  }
}

ReceivedPacket Incoming::packet(std::span<const char> space) const {
  const std::size_t in_header = std::min(received, kHeaderSize);
  return {{header, in_header}, space.first(received - in_header), sent, descriptor_count};
}

Receipt receive_packet(int socket, std::span<char> space, Wait wait, Incoming& ret_incoming) {
  alignas(
      cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMostDescriptors) + CMSG_SPACE(sizeof(ucred))];
  iovec parts[] = {{ret_incoming.header, kHeaderSize}, {space.data(), space.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const int flags = MSG_CMSG_CLOEXEC | MSG_TRUNC | (wait == Wait::no ? MSG_DONTWAIT : 0);
  const ssize_t sent = recvmsg(socket, &message, flags);
  if (sent < 0) {
    return errno == EAGAIN  ? Receipt::nothing_yet
           : errno == EINTR ? Receipt::interrupted
                            : Receipt::closed;
  }
  if (sent == 0 && message.msg_controllen == 0) {
    return Receipt::closed;
  }
  ret_incoming.sent = static_cast<std::size_t>(sent);
  ret_incoming.received = std::min(ret_incoming.sent, kHeaderSize + space.size());
  ret_incoming.out_of_descriptors = (message.msg_flags & MSG_CTRUNC) != 0;
  ret_incoming.descriptor_count = 0;
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
       part = CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
      continue;
    }
    const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int descriptor = -1;
      memcpy(&descriptor, CMSG_DATA(part) + i * sizeof(int), sizeof(int));
      Descriptor owned(descriptor);
      if (ret_incoming.descriptor_count < std::size(ret_incoming.descriptors)) {
        ret_incoming.descriptors[ret_incoming.descriptor_count] = std::move(owned);
      } else {
        discard(std::move(owned));
      }
      ++ret_incoming.descriptor_count;
    }
  }
  return Receipt::packet;
}

int send_packet(int socket, const HeaderBytes& header, std::span<const char> body,
                std::string_view method, std::span<const int> descriptors) {
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 2)];
  iovec parts[] = {{const_cast<std::uint8_t*>(header), kHeaderSize},
                   {const_cast<char*>(body.data()), body.size()},
                   {const_cast<char*>(method.data()), method.size()}};
  if (body.empty()) {
    parts[1] = parts[2];
  }
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = std::size_t{1} + (body.empty() ? 0 : 1) + (method.empty() ? 0 : 1);
  if (!descriptors.empty()) {
    memset(control, 0, sizeof control);
    message.msg_control = control;
    message.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
    cmsghdr* rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(descriptors.size_bytes());
    memcpy(CMSG_DATA(rights), descriptors.data(), descriptors.size_bytes());
  }
  ssize_t sent = -1;
  do {
    sent = sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent < 0 ? errno : 0;
}

void send_status(int socket, int status) {
  HeaderBytes header;
  encode_reply({.status = status}, header);
  send_packet(socket, header, {}, {}, {});
}

int send_reply(int socket, Buffer& body) {
  const std::size_t length = body.size();
  HeaderBytes header;
  if (body.in_packet()) {
    encode_reply({.body_length = length}, header);
    const int error = send_packet(socket, header, {body.block(), length}, {}, {});
    if (error != EMSGSIZE) {
      return error == 0 ? KX_SUCCESS : KX_IO_FAILURE;
    }
  }
  // A body that outgrew the packet, or the socket's limit on a system with a small one.
  if (const int status = body.seal(); status != KX_SUCCESS) {
    send_status(socket, status);
    return status;
  }
  encode_reply({.body_length = length, .body_in_memfd = true}, header);
  const int memfd = body.memfd();
  const int error = send_packet(socket, header, {}, {}, {&memfd, 1});
  if (error == 0) {
    return KX_SUCCESS;
  }
  const int status = error == ETOOMANYREFS ? KX_IS_BUSY : KX_IO_FAILURE;
  send_status(socket, status);
  return status;
}

}  // namespace kxbus
