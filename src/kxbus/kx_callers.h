// Who may call a service, asked when nobody is calling.
#pragma once

#include <set>
#include <string_view>

namespace kxbus {

// Whom the service's allow list names: users, members of groups (primary ones as far as the system
// enumerates its users), and whoever the service may run as. Root and the service's user need not
// stand there. What is wrong with the list is logged. One thread at a time; throws bad_alloc.
std::set<unsigned> listed_callers(std::string_view service);

}  // namespace kxbus
