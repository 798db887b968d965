#include "default_gateway.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>

#include "global_options.h"
#include "logger.h"
#include "long_conversion.h"
#include "nc_msg_db.h"

namespace zorv {
namespace {

constexpr const nc_msg_struct* kGatewaySet = nc_msg("C002", "0011");
constexpr const nc_msg_struct* kBackupGatewaySet = nc_msg("C002", "0012");
constexpr const nc_msg_struct* kDelaySet = nc_msg("C002", "0013");

LogModule log_module{"global_options"};

// "ztunc" stands before "tun", which is a part of it.
constexpr const char* kIfnamePrefixes[] = {"ztunc", "tun", "ppp", "wgc"};

constexpr CodeWord kIntervals[] = {{-1, "Not"}, {0, "immediatly"}, {1, "1"}, {5, "5"}, {10, "10"}};

// A member that is missing or no number reads as 0.
int int_member(const json_t* object, const char* key) {
  using Limits = std::numeric_limits<int>;
  const double number = json_number_value(json_object_get(object, key));
  return static_cast<int>(std::clamp<double>(number, Limits::min(), Limits::max()));
}

const char* text_member(const json_t* object, const char* key) {
  const char* const text = json_string_value(json_object_get(object, key));
  return text != nullptr ? text : "";
}

Gateway gateway_member(const json_t* section, const char* key) {
  const json_t* const gateway = json_object_get(section, key);
  return {int_member(gateway, "type"), int_member(gateway, "index")};
}

// Whether there was anything to clear.
bool clear_failover(json_t* section) {
  const json_t* const enabled = json_object_get(section, "failover_en");
  const bool was_off = json_is_integer(enabled) && json_integer_value(enabled) == 0;
  json_object_set_new(section, "failover_en", json_integer(0));
  const bool had_interval = json_object_del(section, "failover_interval") == 0;
  const bool had_backup = json_object_del(section, "gw2") == 0;
  return !was_off || had_interval || had_backup;
}

// The backup's interface takes the place of the primary's, also where it has none.
void promote_backup(json_t* section, const Gateway& backup) {
  json_t* const primary = json_object_get(section, "gw1");
  json_t* const sname = json_object_get(json_object_get(section, "gw2"), "sname");
  json_object_set_new(primary, "index", json_integer(backup.index));
  json_object_set_new(primary, "type", json_integer(backup.type));
  if (sname != nullptr) {
    json_object_set(primary, "sname", sname);
  } else {
    json_object_del(primary, "sname");
  }
  clear_failover(section);
}

void announce(const nc_msg_struct* message, const json_t* gateway) {
  const std::string kind = type_to_string(static_cast<TYPE>(int_member(gateway, "type")));
  const std::string profile = get_profile_name(text_member(gateway, "sname"));
  nclog::notify_send(message, kind.c_str(), profile.c_str(), nullptr);
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param)
void ifname_to_typeindex(std::string ifname, TYPE& ret_type, int& ret_index) {
  int number = ret_index;
  for (const char* const prefix : kIfnamePrefixes) {
    // Found anywhere, but the number is read behind the prefix's length from the start.
    if (ifname.find(prefix) != std::string::npos) {
      number = long_conversion(ifname.c_str() + strlen(prefix));
      break;
    }
  }
  const auto kind = std::find_if(
      std::rbegin(kVpnKinds), std::rend(kVpnKinds), [number](const VpnKind& candidate) {
        return number >= candidate.first_number || number <= -candidate.first_number;
      });
  const bool is_known = kind != std::rend(kVpnKinds);
  ret_type = is_known ? kind->client : NONE_TYPE;
  ret_index = is_known ? number % kind->first_number : 0;
}

std::string typeindex_to_sname(TYPE type, int index) {
  const VpnKind* const kind = kind_of(&VpnKind::client, type);
  return kind != nullptr ? kind->client_tag + std::to_string(index) : "";
}

std::string type_to_string(TYPE type) {
  if (type == WIREGUARD_CLIENT_TYPE) {
    return "Wireguard";  // as notifications have always spelt it
  }
  const VpnKind* const kind = kind_of(&VpnKind::client, type);
  return kind != nullptr ? kind->word : "";
}

std::string interval_to_string(int interval) {
  const char* const word = word_of(kIntervals, interval);
  return word != nullptr ? word : "";
}

GatewaySettings gateway_settings(const json_t* section) {
  GatewaySettings settings{int_member(section, "as_gw_en") != 0, gateway_member(section, "gw1"),
                           std::nullopt, int_member(section, "failover_interval")};
  if (int_member(section, "failover_en") != 0) {
    settings.backup = gateway_member(section, "gw2");
  }
  return settings;
}

std::optional<Gateway> current_gateway() {
  const LogSite site{log_module, __LINE__, "get_vpn_gw"};
  const JsonRef reply(easy_kx_call(kNetworkService, "api.get_currentGWinfo", nullptr));
  if (reply == nullptr) {
    ZORV_LOG_AT(site, error, "%s: kx_call failed", "get_currentGWinfo");
    return std::nullopt;
  }
  const json_t* const gateways = json_object_get(reply.get(), "data");
  for (size_t i = 0; i < json_array_size(gateways); ++i) {
    const json_t* const gateway = json_array_get(gateways, i);
    if (!json_is_object(gateway)) {
      ZORV_LOG_AT(site, error, "val isn't an object.");
      return std::nullopt;
    }
    if (strcmp(text_member(gateway, "interface_type"), "VPN") != 0) {
      continue;
    }
    const char* const ifname = json_string_value(json_object_get(gateway, "ifname"));
    if (ifname == nullptr) {
      return std::nullopt;
    }
    TYPE type = NONE_TYPE;
    int index = 0;
    ifname_to_typeindex(ifname, type, index);
    return Gateway{type, index};
  }
  return Gateway{};
}

void GlobalConfig::get_vpn_gw(JsonValue& ret_out) const {
  if (const std::optional<Gateway> gateway = current_gateway()) {
    ret_out["type"] = gateway->type;
    ret_out["index"] = gateway->index;
  }
}

Removal remove_gateway(json_t* section, const Gateway& gone) {
  const GatewaySettings settings = gateway_settings(section);
  if (!settings.is_enabled) {
    return Removal::not_found;
  }
  if (gone == settings.primary && settings.backup) {
    promote_backup(section, *settings.backup);
    return Removal::changed;
  }
  if (gone == settings.primary) {
    json_object_set_new(section, "as_gw_en", json_integer(0));
    json_object_del(section, "gw1");
    return Removal::changed;
  }
  // Without failover the backup counts as (0, 0), whatever gw2 says.
  if (gone == settings.backup.value_or(Gateway{})) {
    return clear_failover(section) ? Removal::changed : Removal::unchanged;
  }
  return Removal::not_found;
}

SaveResult save_removal(json_t* options) {
  const LogSite site{log_module, __LINE__, "disable_gateway"};
  const JsonRef current = taken_options(read_options());
  const SaveResult result = save_options(current.get(), options);
  ZORV_LOG_AT(site, error, "gw changed, root=%s", text_or_empty(dump_json(options)));
  return result;
}

int GlobalConfig::disable_gateway(TYPE type, int index) const {
  const JsonRef root(load());
  json_t* const section = json_object_get(root.get(), kGatewaySection);
  if (remove_gateway(section, {type, index}) != Removal::not_found) {
    save_removal(root.get());
  }
  return 0;
}

// Every patch that keeps the gateway enabled announces it again, changed or not.
void zorv_gw_nclog(json_t* patch) {
  const json_t* const section = json_object_get(patch, kGatewaySection);
  const GatewaySettings settings = gateway_settings(section);
  if (!settings.is_enabled) {
    return;
  }
  announce(kGatewaySet, json_object_get(section, "gw1"));
  if (!settings.backup) {
    return;
  }
  announce(kBackupGatewaySet, json_object_get(section, "gw2"));
  const std::string delay = interval_to_string(settings.interval);
  nclog::notify_send(kDelaySet, delay.c_str(), nullptr);
}

}  // namespace zorv
