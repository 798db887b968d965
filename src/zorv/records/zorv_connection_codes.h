// The kinds of VPN, and what the codes `vpn_type` and `action` of the two connection logs mean:
// their words in notifications, in tables and on the command line.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace zorv {

// One bit each. Connections made to the NAS's VPN servers bear the server kinds, those that the NAS
// made the client kinds.
enum TYPE : int32_t {
  NONE_TYPE = 0,
  PPTP_SERVER_TYPE = 1,
  L2TP_SERVER_TYPE = 2,
  OVPN_SERVER_TYPE = 4,
  FENLO_SERVER_TYPE = 16,
  WIREGUARD_SERVER_TYPE = 32,
  PPTP_CLIENT_TYPE = 256,
  L2TP_CLIENT_TYPE = 512,
  OVPN_CLIENT_TYPE = 1024,
  FENLO_CLIENT_TYPE = 4096,
  WIREGUARD_CLIENT_TYPE = 65536,
};

enum Action : int32_t {
  kLoginFail = 1,  // servers only
  kLoginOk = 2,
  kLogout = 3,
  kGetGeolocation = 4,  // clients only
};

// Everything that goes by the kind of VPN. The number in a client's interface name, "tun2003", is
// the first number of its kind and the client's own.
struct VpnKind {
  TYPE server;
  TYPE client;
  const char* name;  // as it is typed
  const char* word;
  const char* client_tag;  // "OPENVPN_CLIENT", which the client's number follows
  int first_number;        // up to the next kind's; the ranges are of unequal length
  bool is_notified;        // notifications of its connections are sent
};

inline constexpr VpnKind kVpnKinds[] = {
    {PPTP_SERVER_TYPE, PPTP_CLIENT_TYPE, "pptp", "PPTP", "PPTP_CLIENT", 1000, true},
    {L2TP_SERVER_TYPE, L2TP_CLIENT_TYPE, "l2tp", "L2TP/IPSec", "L2TP_CLIENT", 1250, true},
    {OVPN_SERVER_TYPE, OVPN_CLIENT_TYPE, "openvpn", "OpenVPN", "OPENVPN_CLIENT", 2000, true},
    {FENLO_SERVER_TYPE, FENLO_CLIENT_TYPE, "fenlo", "Fenlo", "FENLO_CLIENT", 2500, true},
    {WIREGUARD_SERVER_TYPE, WIREGUARD_CLIENT_TYPE, "wireguard", "WireGuard", "WG_CLIENT", 3000,
     false},
};

// The kind whose servers, or clients, bear `code`, or null.
constexpr const VpnKind* kind_of(TYPE VpnKind::*side, long long code) {
  for (const VpnKind& kind : kVpnKinds) {
    if (kind.*side == code) {
      return &kind;
    }
  }
  return nullptr;
}

struct CodeWord {
  int code;
  const char* word;
  bool is_failure = false;
};

inline constexpr CodeWord kServerActions[] = {
    {kLoginFail, "Login Fail", true}, {kLoginOk, "Login OK"}, {kLogout, "Logout"}};
inline constexpr CodeWord kClientActions[] = {
    {kLoginOk, "Login OK"}, {kLogout, "Logout"}, {kGetGeolocation, "Get geolocation"}};

// The word of `code`, or null where the table has none.
template <class Words>
constexpr const char* word_of(const Words& words, long long code) {
  for (const CodeWord& entry : words) {
    if (entry.code == code) {
      return entry.word;
    }
  }
  return nullptr;
}

namespace vpn_kinds {

constexpr auto words(TYPE VpnKind::*side) {
  std::array<CodeWord, std::size(kVpnKinds)> words{};
  std::size_t count = 0;
  for (const VpnKind& kind : kVpnKinds) {
    words[count++] = {kind.*side, kind.word};
  }
  return words;
}

// No two kinds share a code, and an interface belongs to the last kind whose first number its own
// reaches.
constexpr bool are_in_order() {
  int codes = 0;
  int last_number = 0;
  for (const VpnKind& kind : kVpnKinds) {
    const int both = kind.server | kind.client;
    if ((codes & both) != 0 || kind.first_number <= last_number) {
      return false;
    }
    codes |= both;
    last_number = kind.first_number;
  }
  return true;
}
static_assert(are_in_order());

}  // namespace vpn_kinds

inline constexpr auto kServerProtocols = vpn_kinds::words(&VpnKind::server);
inline constexpr auto kClientProtocols = vpn_kinds::words(&VpnKind::client);

}  // namespace zorv
