// What "wg show INTERFACE dump" tells of an interface's peers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wireguard {

struct Peer {
  std::string key;         // public, in base64
  std::string source_ip;   // of its endpoint; "" while it was never heard of
  std::string vpn_ip;      // its addresses in the tunnel, separated by commas
  uint64_t handshake = 0;  // the latest, in seconds since the epoch; 0 for none yet
  uint64_t received = 0;   // bytes, counted since the peer was set up
  uint64_t sent = 0;
};

// The peers, or nothing for a text that is no such dump.
std::optional<std::vector<Peer>> read_dump(std::string_view text);

}  // namespace wireguard
