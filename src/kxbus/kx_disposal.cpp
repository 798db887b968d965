#include "kx_disposal.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>

#include "close_from.h"
#include "kx_transport.h"
#include "kxbus.h"

namespace kxbus {

using os::Descriptor;

namespace {

constexpr int kNoAnswer = -1;
constexpr unsigned kChildSeconds = 1;

struct Unread {
  bool packet = false;  // there is one
  bool descriptors = false;
};

// Reads a packet away, or looks at it, without receiving its descriptors. With credentials, which
// take all the room, an empty packet is told from none.
enum class Credentials : bool { no, yes };
Unread read_away(int connection, int flags, Credentials credentials = Credentials::yes) {
  char byte = 0;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
  iovec part{&byte, sizeof byte};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  if (credentials == Credentials::yes) {
    message.msg_control = control;
    message.msg_controllen = sizeof control;
  }
  ssize_t length = -1;
  do {
    length = recvmsg(connection, &message, flags | MSG_DONTWAIT);
  } while (length < 0 && errno == EINTR);
  const bool descriptors = length >= 0 && (message.msg_flags & MSG_CTRUNC) != 0;
  return {length > 0 || descriptors || (length == 0 && message.msg_controllen != 0), descriptors};
}

void tell_packets_apart(int connection) {
  const int yes = 1;
  setsockopt(connection, SOL_SOCKET, SO_PASSCRED, &yes, sizeof yes);
}

// Up to a packet with descriptors: true where there is one.
bool discard_plain_packets(int connection) {
  for (;;) {
    const Unread next = read_away(connection, MSG_PEEK);
    if (!next.packet || next.descriptors) {
      return next.descriptors;
    }
    read_away(connection, 0);
  }
}

// A child that has this one descriptor as number 0; in the parent its process id, -1 for none. No
// signal tells of its end, which is none of the service's business. System calls only may follow in
// the child: other threads may have held any lock.
pid_t fork_with(int descriptor) {
  auto child = static_cast<pid_t>(syscall(SYS_clone, 0, nullptr, nullptr, nullptr, nullptr));
  if (child < 0 && errno == EINVAL) {
    child = fork();  // an emulator knows no other way
  }
  if (child == 0) {
    signal(SIGALRM, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    alarm(kChildSeconds);
    if (descriptor != 0) {
      dup2(descriptor, 0);
    }
  }
  return child;
}

// Has a child of ours ended, or never been? Then its place is free.
bool is_gone(pid_t child) {
  return child <= 0 || waitpid(child, nullptr, WNOHANG | __WALL) != 0;
}

bool closes_at_once(int descriptor) {
  if (fcntl(descriptor, F_GET_SEALS) >= 0) {
    return true;  // memory
  }
  char path[32];
  char target[8] = {};
  snprintf(path, sizeof path, "/proc/self/fd/%d", descriptor);
  return readlink(path, target, sizeof target) > 0 &&
         std::string_view(target, sizeof target).starts_with("pipe:");
}

// Looks without changing anything: the packet stays for the parent to receive.
bool all_close_at_once(int connection) {
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMostDescriptors)];
  char byte = 0;
  iovec part{&byte, sizeof byte};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  if (recvmsg(connection, &message, MSG_PEEK | MSG_DONTWAIT) < 0 ||
      (message.msg_flags & MSG_CTRUNC) != 0) {
    return false;
  }
  for (cmsghdr* rights = CMSG_FIRSTHDR(&message); rights != nullptr;
       rights = CMSG_NXTHDR(&message, rights)) {
    const int* const descriptors = reinterpret_cast<const int*>(CMSG_DATA(rights));
    const std::size_t count = (rights->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    if (rights->cmsg_type == SCM_RIGHTS &&
        !std::all_of(descriptors, descriptors + count, closes_at_once)) {
      return false;
    }
  }
  return true;
}

}  // namespace

void Disposal::refuse(Descriptor connection, int status) {
  shutdown(connection.get(), SHUT_RD);
  tell_packets_apart(connection.get());
  if (discard_plain_packets(connection.get())) {
    discard_in_child(std::move(connection), status);
  } else {
    send_status(connection.get(), status);
  }
}

void Disposal::close(Descriptor connection) {
  shutdown(connection.get(), SHUT_RD);
  tell_packets_apart(connection.get());
  if (discard_plain_packets(connection.get())) {
    discard_in_child(std::move(connection), kNoAnswer);
  }
}

void Disposal::discard_in_child(Descriptor connection, int status) {
  pid_t& child = discarding_[turn_++ % discarding_.size()];
  if (!is_gone(child)) {
    // The oldest has had its time: a socket that lingers does not keep a process from being killed.
    kill(child, SIGKILL);
    while (waitpid(child, nullptr, __WALL) < 0 && errno == EINTR) {
    }
  }
  child = fork_with(connection.get());
  if (child == 0) {
    os::close_from(1);
    while (read_away(0, 0).packet) {
    }
    if (status != kNoAnswer) {
      send_status(0, status);
    }
    _exit(0);
  }
}

bool Disposal::is_harmless(int connection) {
  if (!read_away(connection, MSG_PEEK, Credentials::no).descriptors) {
    return true;
  }
  const auto child = std::find_if(looking_.begin(), looking_.end(), is_gone);
  int ends[2];
  if (child == looking_.end() || pipe2(ends, O_CLOEXEC) != 0) {
    return false;
  }
  const Descriptor reader(ends[0]);
  Descriptor writer(ends[1]);
  *child = fork_with(connection);
  if (*child == 0) {
    dup2(writer.get(), 1);
    os::close_from(2);
    const char verdict = all_close_at_once(0) ? 'y' : 'n';
    [[maybe_unused]] const ssize_t told = write(1, &verdict, 1);
    _exit(0);  // held up by what does not close, for ever
  }
  writer.reset();
  char verdict = 'n';
  ssize_t length = -1;
  do {
    length = read(reader.get(), &verdict, 1);
  } while (length < 0 && errno == EINTR);
  return length == 1 && verdict == 'y';
}

}  // namespace kxbus
