// The allow list of a service, /etc/config/kxbus/SERVICE.allow: whom it deals with besides uid 0
// and its own uid.
//
//   user NAME     this user may call
//   group NAME    whoever has this group, primary or supplementary, may call
//   server NAME   the service may run as this user, so a client trusts such a listener
//
// NAME is a name or a number; '#' begins a comment. The file counts only when it is a plain file of
// root's that nobody else may write; under a root of one's own (ZORV_ROOT, not run by uid 0) one's
// own file counts too. A file that does not count is logged and read as empty.
//
// Read whenever somebody is met whom it must vouch for. Any thread; throws bad_alloc.
#pragma once

#include <string_view>

#include "kx_log.h"
#include "kx_peer.h"

namespace kxbus {

// What is wrong with the list is logged as far as the budget goes.
bool is_allowed_caller(std::string_view service, int socket, const Peer& peer, LogBudget& budget);
bool is_allowed_listener(std::string_view service, const Peer& peer);

}  // namespace kxbus
