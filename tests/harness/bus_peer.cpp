#include "harness/bus_peer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "harness/test_root.h"

namespace harness {
namespace {

std::atomic<int> mark_count{0};

// A socket that is connected to, or bound to, an abstract address.
RawSocket attached(decltype(connect)* attach, const char* address) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  const std::string text = test_root() + (address + 1);
  text.copy(name.sun_path + 1, sizeof name.sun_path - 1);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + text.size());
  RawSocket made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const bool done = attach(made.get(), reinterpret_cast<const sockaddr*>(&name), length) == 0;
  return done ? std::move(made) : RawSocket();
}

std::string proc_folder(pid_t pid) {
  return "/proc/" + (pid == 0 ? std::string("self") : std::to_string(pid)) + "/fd";
}

}  // namespace

void bus_callback(const char* method, kx_io* io, int fd) {
  const std::string name = method;
  if (name == "fail") {
    kx_io_free(io);
  } else if (name == "throw") {
    throw std::runtime_error("thrown by a callback");
  } else if (name == "held" || name == "mark" || name == "marks") {
    mark_count += name == "mark" ? 1 : 0;
    const std::string answer =
        name == "mark" ? "" : std::to_string(name == "held" ? open_descriptors() : marks());
    kx_io_realloc(io, 0);
    kx_io_write(io, answer.data(), answer.size());
    kx_reply(io);
  } else if (name == "again") {
    kx_reply(io);
    kx_reply(io);
    kx_io_free(io);
    kx_io_free(io);
  } else if (name == "echo" || name.size() == 255) {
    kx_reply(io);
    kx_io_free(io);
  }
  if (fd >= 0) {
    close(fd);
  }
}

int descriptors_held() {
  std::string count;
  return bus_call("held", "", &count) == KX_SUCCESS ? std::stoi(count) : -1;
}

int marks() {
  return mark_count;
}

BusServer::BusServer(const char* address) : server_(kx_create(address, 4, 1, bus_callback)) {
  if (server_ == nullptr) {
    abort();
  }
  thread_ = std::thread([this] { kx_start(server_); });
}

BusServer::~BusServer() {
  kx_stop(server_);
  thread_.join();
  kx_free(server_);
}

int bus_call(const std::string& method, const std::string& body, std::string* ret_reply,
             int timeout_s, int fd, const char* address) {
  const kx_io_owner io(kx_io_create());
  kx_io_write(io.get(), body.data(), body.size());
  const int status = kx_call(address, method.c_str(), io.get(), timeout_s, fd);
  if (status == KX_SUCCESS && ret_reply != nullptr) {
    std::size_t length = 0;
    const auto* bytes = static_cast<const char*>(kx_io_read(io.get(), &length));
    ret_reply->assign(bytes != nullptr ? bytes : "", length);
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

RawSocket::RawSocket(int socket) : socket_(socket) {
  const timeval limit{20, 0};
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

RawSocket RawSocket::connected(const char* address) {
  return attached(connect, address);
}

RawSocket RawSocket::listening(const char* address) {
  RawSocket made = attached(bind, address);
  return listen(made.get(), 0) == 0 ? std::move(made) : RawSocket();
}

RawSocket RawSocket::accept() const {
  return RawSocket(accept4(get(), nullptr, nullptr, SOCK_CLOEXEC));
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
    cmsghdr* rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(size);
    memcpy(CMSG_DATA(rights), descriptors.data(), size);
  }
  return sendmsg(get(), &message, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string RawSocket::receive() const {
  std::string bytes(128 * 1024, '\0');
  const ssize_t length = recv(get(), bytes.data(), bytes.size(), 0);
  bytes.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return bytes;
}

int RawSocket::status() const {
  const std::string reply = receive();
  if (reply.empty()) {
    return -1;
  }
  const bool header = reply.size() >= 16 && reply.compare(0, 6, "KXBU\x01\x02") == 0;
  return header ? static_cast<unsigned char>(reply[6]) | static_cast<unsigned char>(reply[7]) << 8
                : -2;
}

int make_memfd(const std::string& content, unsigned seals) {
  const int made = memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  const bool good =
      write(made, content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
      fcntl(made, F_ADD_SEALS, seals) == 0;
  return good ? made : -1;
}

int open_descriptors(pid_t pid) {
  const std::filesystem::directory_iterator folder(proc_folder(pid));
  return static_cast<int>(std::distance(begin(folder), end(folder)));
}

int lowest_free_descriptor(pid_t pid) {
  int number = 0;
  while (std::filesystem::is_symlink(proc_folder(pid) + "/" + std::to_string(number))) {
    ++number;
  }
  return number;
}

double cpu_seconds(pid_t pid) {
  clockid_t clock = 0;
  timespec time{};
  const bool known = clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &time) == 0;
  return known ? static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9 : -1;
}

}  // namespace harness
