// A notification from a process of 5 and 500 MB, with a small and a large descriptor limit.
//
// The process is a copy of this one that touches as much memory; it inherits the tools it starts
// and waits for each to end before the next, so that they do not compete with it.
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "child.h"
#include "families.h"
#include "floor.h"
#include "harness/daemon.h"
#include "harness/test_root.h"
#include "nc_msg_db.h"

namespace bench {
namespace {

enum Order : char { kOurs = 'o', kFloor = 'f' };

const char* const kValues[] = {"2026/11/21 10:00:00",
                               "00:10:00",
                               "alice",
                               "10.99.0.2",
                               "10.8.0.2",
                               "1.00 KB",
                               "2.00 KB",
                               "OpenVPN",
                               "Login OK"};

void send_ours() {
  zorv::nclog::notify_send(zorv::nc_msg("C001", "0017"), kValues[0], kValues[1], kValues[2],
                           kValues[3], kValues[4], kValues[5], kValues[6], kValues[7], kValues[8],
                           nullptr);
}

void send_raw() {
  static const std::string tool = harness::test_root() + "/usr/local/sbin/notify";
  const zorv::nc_msg_struct& message = *zorv::nc_msg("C001", "0017");
  const char* const arguments[] = {"/usr/local/sbin/notify",
                                   "send",
                                   "-A",
                                   "A238",
                                   "-C",
                                   message.category_id,
                                   "-M",
                                   message.message_id,
                                   "-l",
                                   message.level,
                                   "-t",
                                   "3",
                                   message.message,
                                   "ZORV Service",
                                   kValues[0],
                                   kValues[1],
                                   kValues[2],
                                   kValues[3],
                                   kValues[4],
                                   kValues[5],
                                   kValues[6],
                                   kValues[7],
                                   kValues[8],
                                   nullptr};
  spawn_raw(tool.c_str(), arguments);
}

void serve_orders(int socket, size_t megabytes, rlim_t descriptors, const Child::Ready& ready) {
  const rlimit limit{descriptors, descriptors};
  setrlimit(RLIMIT_NOFILE, &limit);
  const size_t size = megabytes << 20;
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  madvise(memory, size, MADV_NOHUGEPAGE);  // a daemon's memory comes in small pieces
  memset(memory, 1, size);
  inherit_orphans();
  ready();
  char order = 0;
  while (read(socket, &order, 1) == 1) {
    const double seconds = seconds_of(order == kOurs ? send_ours : send_raw);
    await_orphan();
    [[maybe_unused]] const ssize_t written = write(socket, &seconds, sizeof seconds);
  }
}

double ask(int socket, Order order) {
  double seconds = 0;
  if (write(socket, &order, 1) != 1 || read(socket, &seconds, sizeof seconds) != sizeof seconds) {
    throw std::runtime_error("the sending process ended");
  }
  return seconds;
}

rlim_t largest_limit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_max;
}

bool may_have(rlim_t descriptors) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit wanted{before.rlim_cur, descriptors};
  const bool may = setrlimit(RLIMIT_NOFILE, &wanted) == 0;
  return may || before.rlim_max >= descriptors;
}

void measure(Report& report, size_t megabytes, rlim_t descriptors) {
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0) {
    throw std::runtime_error("no socket pair");
  }
  const Child sender([&](const Child::Ready& ready) {
    close(sockets[0]);
    serve_orders(sockets[1], megabytes, descriptors, ready);
  });
  close(sockets[1]);
  const int socket = sockets[0];
  report.compare(
      "notification from " + std::to_string(megabytes) + " MB, " + std::to_string(descriptors) +
          " descriptors",
      {15, 20}, {.of_floor = 1.3},
      {{Role::ours, "notify_send", [socket] { return ask(socket, kOurs); }},
       {Role::floor, "vfork twice, close_range", [socket] { return ask(socket, kFloor); }}});
  close(socket);
}

}  // namespace

void measure_notification(Report& report) {
  const OneProcessor together;
  constexpr rlim_t kSmall = 1024;
  rlim_t large = 1048576;
  if (!may_have(large)) {
    const rlim_t highest = largest_limit();
    report.miss("notification with a limit of " + std::to_string(large) +
                " descriptors: this machine allows " + std::to_string(highest) +
                ", which is taken instead");
    large = highest;
  }
  harness::install_notify();
  for (const size_t megabytes : {size_t{5}, size_t{500}}) {
    for (const rlim_t descriptors : {kSmall, large}) {
      measure(report, megabytes, descriptors);
    }
  }
}

}  // namespace bench
