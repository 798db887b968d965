#include "harness/bus_peer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "kx_address.h"

namespace harness {
// A socket that is connected to, or bound to, an address.
static RawSocket attached(decltype(connect)* attach, const char* address) {
  kxbus::Address name;
  kxbus::resolve_address(address, name);
  RawSocket made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  return attach(made.get(), name.get(), name.length) == 0 ? std::move(made) : RawSocket();
}

void bus_callback(const char* method, kx_io* io, int fd) {
  const os::Descriptor passed(fd);
  const std::string name = method;
  if (name == "throw") {
    throw std::runtime_error("thrown by a callback");
  }
  for (int i = name == "again" ? 2 : name == "echo" || name.size() == 255; i > 0; --i) {
    kx_reply(io);
    kx_io_free(io);
  }
  if (name == "fail") {
    kx_io_free(io);
  }
}

std::string content(const kx_io_owner& io) {
  std::size_t length = 1;
  const auto* bytes = static_cast<const char*>(kx_io_read(io.get(), &length));
  EXPECT_EQ(bytes != nullptr ? bytes[length] : static_cast<char>(length), '\0');
  return {bytes != nullptr ? bytes : "", length};
}

int bus_call(const std::string& method, const std::string& body, std::string* ret_reply,
             int timeout_s, int fd, const char* address) {
  const kx_io_owner io(kx_io_create());
  kx_io_write(io.get(), body.data(), body.size());
  const int status = kx_call(address, method.c_str(), io.get(), timeout_s, fd);
  if (status == KX_SUCCESS && ret_reply != nullptr) {
    *ret_reply = content(io);
  }
  return status;
}

std::string Frame::bytes() const {
  const struct {
    std::uint32_t magic;
    std::uint8_t version, kind;
    std::uint16_t detail;
    std::uint32_t flags, body_length;
  } header{
      magic, version,
      kind,  static_cast<std::uint16_t>(detail >= 0 ? static_cast<size_t>(detail) : method.size()),
      flags, static_cast<std::uint32_t>(body_length >= 0 ? body_length : std::ssize(body))};
  return std::string(reinterpret_cast<const char*>(&header), sizeof header) + body + method;
}

RawSocket::RawSocket(int socket) : os::Descriptor(socket) {
  const timeval limit{20, 0};
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

RawSocket RawSocket::connected(const char* address) {
  return attached(connect, address);
}

RawSocket RawSocket::listening(const char* address) {
  RawSocket made = attached(bind, address);
  return listen(made.get(), 0) == 0 ? std::move(made) : RawSocket();
}

bool RawSocket::send(const std::string& bytes, const std::vector<int>& descriptors) const {
  iovec part{const_cast<char*>(bytes.data()), bytes.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  const std::size_t size = descriptors.size() * sizeof(int);
  std::vector<char> control(CMSG_SPACE(size));
  if (!descriptors.empty()) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    *CMSG_FIRSTHDR(&message) = {CMSG_LEN(size), SOL_SOCKET, SCM_RIGHTS};
    memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), descriptors.data(), size);
  }
  return sendmsg(get(), &message, MSG_NOSIGNAL) == std::ssize(bytes);
}

std::string RawSocket::receive() const {
  std::string bytes(128 * 1024, '\0');
  const ssize_t length = recv(get(), bytes.data(), bytes.size(), 0);
  return bytes.substr(0, length > 0 ? static_cast<std::size_t>(length) : 0);
}

int RawSocket::status() const {
  const std::string reply = receive();
  return reply.starts_with("KXBU\x01\x02") && reply.size() >= 16 ? reply[6] : -1;
}

int open_descriptors(pid_t process) {
  const std::filesystem::directory_iterator folder("/proc/" + std::to_string(process) + "/fd");
  return static_cast<int>(std::distance(begin(folder), end(folder)));
}

}  // namespace harness
