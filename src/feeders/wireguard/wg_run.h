// Asks wg about an interface.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "wg_dump.h"

namespace wireguard {

// What "wg show INTERFACE dump" tells, or nothing when wg could not be run, failed or took longer
// than 5 seconds. `quiet` keeps what it complains of from standard error.
std::optional<std::vector<Peer>> dump_interface(const std::string& interface, bool quiet);

}  // namespace wireguard
