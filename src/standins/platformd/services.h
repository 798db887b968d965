// The two services of the bus, each a table of methods that take and give JSON.
//
// "vpncaas": what stands in the configuration files.
//
//   read_json {"path": "/etc/config/..."}   the file's JSON document
//
// Only regular files below /etc/config are read, each under its read lock. A path that leads out
// of it, through ".." or a link, is refused.
//
// "NetworkService": the network interfaces and gateways that the VPN service asks for.
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
//
// A request is empty or one JSON object; another is answered with EINVAL, and an unknown method is
// left to the bus, which tells the caller so. Each service runs on a thread of its own.
#pragma once

#include <string>

#include "kxbus.h"

namespace platformd {

inline constexpr const char* kStateFile = "/etc/config/network_state.json";

// The plain, absolute path; set before the service runs.
void set_state_file(std::string path);

// What the services' bus callbacks do.
void config_service_call(const char* method, kx_io* io, int fd);
void network_service_call(const char* method, kx_io* io, int fd);

// One line of platformd's own log on standard error; control characters are shown as '?'.
void log_line(std::string text);

}  // namespace platformd
