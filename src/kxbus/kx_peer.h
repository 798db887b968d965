// Who is at the other end of a socket, as the kernel vouches for it.
#pragma once

#include <sys/types.h>

namespace kxbus {

struct Peer {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
};

// Who connected, or for a connected socket who listens.
bool read_peer(int socket, Peer& ret_peer);

// True for uid 0 and for this process's own uid: whom both sides deal with without an allow list.
// A uid that may stand for any unmapped user of another user namespace is nobody's own.
bool is_own_kind(const Peer& peer);

bool is_in_group(int socket, const Peer& peer, gid_t group);

}  // namespace kxbus
