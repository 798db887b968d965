#include "kx_listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kxbus {

using os::Descriptor;

namespace {

// Opens and locks the lock file; one that its holder removed meanwhile does not count.
int lock_file(const std::string& path, Descriptor& ret_lock) {
  for (;;) {
    Descriptor lock(open(path.c_str(),
                         O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK, 0600));
    if (!lock.valid()) {
      return errno;
    }
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
      return errno == EWOULDBLOCK ? EADDRINUSE : errno;
    }
    struct stat locked {};
    struct stat named {};
    if (fstat(lock.get(), &locked) != 0) {
      return errno;
    }
    if (stat(path.c_str(), &named) == 0 && locked.st_ino == named.st_ino &&
        locked.st_dev == named.st_dev) {
      ret_lock = std::move(lock);
      return 0;
    }
  }
}

// Removes what a dead service left at the path. Whatever is not a socket, or is answered, stays.
int remove_stale(const Address& address) {
  struct stat about {};
  if (lstat(address.path(), &about) != 0) {
    return errno == ENOENT ? 0 : errno;
  }
  if (!S_ISSOCK(about.st_mode)) {
    return EEXIST;
  }
  const Descriptor probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe.valid()) {
    return errno;
  }
  if (connect(probe.get(), address.get(), address.length) == 0 || errno != ECONNREFUSED) {
    return EADDRINUSE;
  }
  return unlink(address.path()) == 0 || errno == ENOENT ? 0 : errno;
}

unsigned number_from_environment(const char* name) {
  const char* const text = secure_getenv(name);
  return text != nullptr ? static_cast<unsigned>(strtoul(text, nullptr, 10)) : 0;
}

// The listening socket of that address that a service manager has handed over; none otherwise.
Descriptor handed_over_socket(const Address& address) {
  constexpr int kFirst = 3;
  constexpr unsigned kMost = 64;
  if (number_from_environment("LISTEN_PID") != static_cast<unsigned>(getpid())) {
    return {};
  }
  const unsigned count = std::min(number_from_environment("LISTEN_FDS"), kMost);
  for (int socket = kFirst; socket < kFirst + static_cast<int>(count); ++socket) {
    sockaddr_un bound{};
    socklen_t bound_length = sizeof bound;
    int type = 0;
    int listening = 0;
    socklen_t length = sizeof type;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&bound), &bound_length) == 0 &&
        bound_length == address.length && memcmp(&bound, address.get(), bound_length) == 0 &&
        getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_SEQPACKET &&
        getsockopt(socket, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0 && listening == 1) {
      fcntl(socket, F_SETFD, FD_CLOEXEC);
      fcntl(socket, F_SETFL, O_NONBLOCK);
      return Descriptor(socket);
    }
  }
  return {};
}

}  // namespace

Listener::~Listener() {
  struct stat about {};
  if (!bound_path_.empty() && lstat(bound_path_.c_str(), &about) == 0 && about.st_ino == inode_ &&
      about.st_dev == device_) {
    unlink(bound_path_.c_str());
  }
  if (lock_.valid()) {
    unlink(lock_path_.c_str());
  }
}

int Listener::open(const Address& address, int backlog) {
  socket_ = handed_over_socket(address);
  if (socket_.valid()) {
    handed_over_ = true;
    return listen(socket_.get(), backlog) == 0 ? 0 : errno;  // callers then see this process's user
  }
  if (*address.path() != '\0') {
    lock_path_ = address.path() + std::string(".lock");
    if (const int error = lock_file(lock_path_, lock_); error != 0) {
      return error;
    }
    if (const int error = remove_stale(address); error != 0) {
      return error;
    }
  }
  socket_.reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket_.valid() || bind(socket_.get(), address.get(), address.length) != 0) {
    return errno;
  }
  if (*address.path() != '\0') {
    struct stat about {};
    if (lstat(address.path(), &about) != 0) {
      return errno;
    }
    bound_path_ = address.path();
    device_ = about.st_dev;
    inode_ = about.st_ino;
    if (chmod(bound_path_.c_str(), 0666) != 0) {
      return errno;
    }
  }
  return listen(socket_.get(), backlog) == 0 ? 0 : errno;
}

}  // namespace kxbus
