// The NAS's default gateway: the settings as a structure, and what the functions of
// global_options.h find out about it and keep to themselves. Blocks and may be called as those.
#pragma once

#include <jansson.h>

#include <optional>

#include "global_config.h"
#include "zorv_connection_codes.h"

namespace zorv {

inline constexpr const char* kGatewaySection = "gw_setting";

// A VPN client: a TYPE, or whatever number stands in its place, and the number within the type.
struct Gateway {
  int type = NONE_TYPE;
  int index = 0;

  bool operator==(const Gateway&) const = default;
};

struct GatewaySettings {
  bool is_enabled = false;
  Gateway primary;
  std::optional<Gateway> backup;  // with failover only
  int interval = 0;
};

// Of a "gw_setting" section; a null one is disabled.
GatewaySettings gateway_settings(const json_t* section);

// The VPN client that is the default gateway now, {NONE_TYPE, 0} where it is none. Nothing when the
// network service does not tell. Logs as GlobalConfig::get_vpn_gw().
std::optional<Gateway> current_gateway();

enum class Removal {
  not_found,  // neither the gateway nor its backup; the section is as it was
  unchanged,  // it counts as found, and the section was so already
  changed,
};

// Takes a VPN client out of a "gw_setting" section.
Removal remove_gateway(json_t* section, const Gateway& gone);

// Saves options from which a gateway was removed. Logs as GlobalConfig::disable_gateway().
SaveResult save_removal(json_t* options);

}  // namespace zorv
