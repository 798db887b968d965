// The VPN service's global options: calls to other bus services, the options file with its
// default-gateway settings, and the command that prints them.
//
// The options file holds one JSON object, in sections:
//
//   "global"      {"version": "1"}
//   "gw_setting"  as_gw_en           not 0: a VPN client is the NAS's default gateway
//                 gw1                {"type": TYPE, "index": n, "sname": interface}, the gateway
//                 failover_en        not 0: gw2, of the same shape, takes over when gw1 fails
//                 failover_interval  delay before the gateway goes back to gw1: -1, 0, 1, 5 or 10
//
// Other programs keep sections of their own in it. Numbers are read as reals and cut to 32-bit
// integers; a missing member reads as 0 or as the empty text.
//
// There is no state in memory: every operation reads the file anew under the platform's lock for
// it. Everything here blocks (a bus call for up to five seconds, a lock that another process holds
// for up to thirty), logs its failures and reports them to nobody: global_config.h and
// default_gateway.h have the same with a result. Any thread may call.
#pragma once

#include <jansson.h>

#include <string>

#include "error_code.h"
#include "json.h"
#include "zorv_connection_codes.h"

namespace zorv {

inline constexpr const char* kOptionsFile = "/etc/config/vpn_options.conf";
inline constexpr const char* kNetworkService = "NetworkService";

// Calls a method with a JSON text or null. Returns the answer, which is the caller's, when it is an
// object whose "error" is the integer 0; null otherwise.
json_t* easy_kx_call(const char* service, const char* method, const char* args);

// The name of the profile behind a network interface, or "".
std::string get_profile_name(std::string ifname);

class GlobalConfig {
 public:
  json_t* get_tmpl() const;  // the default content; new

  // The content; new, never null. A broken file reads as the default content, a missing file or a
  // refused lock as an empty object.
  json_t* load() const;
  json_t* load(const char* key) const;                  // a section; new, empty when there is none
  int load(const char* key, JsonValue& ret_out) const;  // the section as ret_out[key]; -1: no key

  // Replaces the sections that stand in both the file and the patch, announces the gateway and has
  // the network service apply it. Always 0. A patch that is no JSON object empties the file.
  int save(const char* json_text) const;

  // The VPN client that is the default gateway now, as ret_out["type"] and ret_out["index"].
  // Untouched when the network service does not tell.
  void get_vpn_gw(JsonValue& ret_out) const;

  // Takes a client that is disabled or removed out of the gateway settings. Always 0.
  int disable_gateway(TYPE type, int index) const;
};

// Kind and number of the VPN client behind an interface. `ret_index` is read where the name tells
// no number: the incoming value is mapped then.
void ifname_to_typeindex(std::string ifname, TYPE& ret_type, int& ret_index);

// Texts; "" for what has none.
std::string typeindex_to_sname(TYPE type, int index);  // "OPENVPN_CLIENT2"
std::string type_to_string(TYPE type);                 // "OpenVPN"
std::string interval_to_string(int interval);

// Announces the gateway that a patch has just set.
void zorv_gw_nclog(json_t* patch);

// The command "get [SECTION]": one line of JSON on standard output, {"data": ..., "error": 0}, and
// {"error": -1} for any other words. argv[0] is the command's own name. Always 0.
int cmd_global_opt(char* name, int argc, char** argv);
void get_setting(char* key);
void usage();

}  // namespace zorv
