// The kinds of VPN, and what the codes `vpn_type` and `action` of the two connection logs mean:
// their words in notifications, in tables and on the command line.
#pragma once

#include <cstdint>

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

struct CodeWord {
  int code;
  const char* word;
};

inline constexpr CodeWord kServerProtocols[] = {{PPTP_SERVER_TYPE, "PPTP"},
                                                {L2TP_SERVER_TYPE, "L2TP/IPSec"},
                                                {OVPN_SERVER_TYPE, "OpenVPN"},
                                                {FENLO_SERVER_TYPE, "Fenlo"}};
inline constexpr CodeWord kClientProtocols[] = {{PPTP_CLIENT_TYPE, "PPTP"},
                                                {L2TP_CLIENT_TYPE, "L2TP/IPSec"},
                                                {OVPN_CLIENT_TYPE, "OpenVPN"},
                                                {FENLO_CLIENT_TYPE, "Fenlo"}};
inline constexpr CodeWord kServerActions[] = {
    {kLoginFail, "Login Fail"}, {kLoginOk, "Login OK"}, {kLogout, "Logout"}};
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

}  // namespace zorv
