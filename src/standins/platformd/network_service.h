// The service "NetworkService": the network interfaces and gateways that the VPN service asks for.
//
//   external_dev.list {"key": IFNAME}   {IFNAME: {"profile": ...}}, {} when unknown;
//                                       without a key every interface
//   api.get_currentGWinfo               [{"interface_type": "VPN", "ifname": "tun2000"}, ...]
//   external_dev.update_vpn_gw          notes in the state file that it was asked
//
// What it knows stands in the state file, which an administrator or a test writes:
//
//   {"devices": {"tun2000": {"profile": "Home"}},
//    "gateways": [{"interface_type": "VPN", "ifname": "tun2000"}],
//    "update_vpn_gw": {"count": 3, "time": 1767225600}}
//
// It is read afresh at each call, under its configuration lock. A missing file or member is an
// empty one; a broken file is an error and is never written to.
#pragma once

#include <string>

#include "kxbus.h"

namespace platformd {

inline constexpr const char* kStateFile = "/etc/config/network_state.json";

// The plain, absolute path; set before the service runs.
void set_state_file(std::string path);

void network_service_call(const char* method, kx_io* io, int fd);

}  // namespace platformd
