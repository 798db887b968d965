#include "kx_peer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "descriptor.h"

#ifndef SO_PEERGROUPS
#define SO_PEERGROUPS 59
#endif

namespace kxbus {
namespace {

// Reads the start of a small file of the kernel's; "" when there is none.
struct KernelText {
  explicit KernelText(const char* path) {
    const os::Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
    const ssize_t length = file.valid() ? read(file.get(), text, sizeof text - 1) : -1;
    text[length > 0 ? length : 0] = '\0';
  }
  char text[64];
};

bool maps_every_user() {
  unsigned inside = 1;
  unsigned outside = 1;
  unsigned count = 0;
  return sscanf(KernelText("/proc/self/uid_map").text, "%u %u %u", &inside, &outside, &count) ==
             3 &&
         inside == 0 && outside == 0 && count == 0xFFFFFFFF;
}

bool may_be_anybody(uid_t uid) {
  static const auto overflow = [] {
    const KernelText value("/proc/sys/kernel/overflowuid");
    return value.text[0] != '\0' ? static_cast<uid_t>(strtoul(value.text, nullptr, 10)) : 65534;
  }();
  return uid == overflow && !maps_every_user();
}

}  // namespace

bool read_peer(int socket, Peer& ret_peer) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
      length != sizeof credentials) {
    return false;
  }
  ret_peer = {credentials.pid, credentials.uid, credentials.gid};
  return true;
}

bool is_own_kind(const Peer& peer) {
  return peer.uid == 0 || (peer.uid == geteuid() && !may_be_anybody(peer.uid));
}

bool is_in_group(int socket, const Peer& peer, gid_t group) {
  if (peer.gid == group) {
    return true;
  }
  std::vector<gid_t> groups(64);
  for (;;) {
    auto length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) == 0) {
      groups.resize(length / sizeof(gid_t));
      return std::find(groups.begin(), groups.end(), group) != groups.end();
    }
    if (errno != ERANGE || length <= groups.size() * sizeof(gid_t)) {
      return false;
    }
    groups.resize(length / sizeof(gid_t));
  }
}

}  // namespace kxbus
