#include "openvpn_environment.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <string_view>

#include "record_text.h"
#include "whole_number.h"
#include "zorv_schema.h"

namespace zorvctl {
namespace {

struct TypeName {
  std::string_view name;
  ScriptType type;
};
// The server sets "user-pass-verify", its manual says "auth-user-pass-verify".
constexpr TypeName kTypeNames[] = {
    {"", ScriptType::none},
    {"client-connect", ScriptType::client_connect},
    {"client-disconnect", ScriptType::client_disconnect},
    {"user-pass-verify", ScriptType::user_pass_verify},
    {"auth-user-pass-verify", ScriptType::user_pass_verify},
    {"route-up", ScriptType::route_up},
    {"down", ScriptType::down},
};

// What of a client's self-description goes into device_info, in this order.
struct DevicePart {
  const char* variable;
  std::string_view before;
};
constexpr DevicePart kDeviceParts[] = {
    {"IV_PLAT", ", "},    {"IV_PLAT_VER", " "}, {"IV_VER", ", OpenVPN "},
    {"IV_GUI_VER", ", "}, {"IV_SSL", ", "},     {"IV_HWADDR", ", "},
};

// The first of the variables that is set to something.
std::string_view first_of(const Environment& environment,
                          std::initializer_list<std::string_view> names) {
  for (const std::string_view name : names) {
    if (const auto value = value_of(environment, name); !value.empty()) {
      return value;
    }
  }
  return {};
}

unsigned long long number_of(const Environment& environment, std::string_view name,
                             unsigned long long highest) {
  const std::string_view text = value_of(environment, name);
  unsigned long long number = 0;
  if (read_whole_number(text, &number) == WholeNumber::too_large) {
    return highest;
  }
  return std::min(number, highest);
}

void put_text(char (&field)[kTextSize], std::string_view text) {
  zorv::copy_text(field, zorv::record_text(text, sizeof field - 1));
}

std::string device_info(const Environment& environment) {
  std::string text;
  for (const DevicePart& part : kDeviceParts) {
    const std::string_view value = value_of(environment, part.variable);
    if (value.empty()) {
      continue;
    }
    std::string_view before = part.before;
    if (text.empty() && before.starts_with(", ")) {
      before.remove_prefix(2);
    }
    text += before;
    text += value;
  }
  return text;
}

// What all three have in common.
db_conn_server_log record_of(const Environment& environment, int action) {
  db_conn_server_log record{};
  record.vpn_type = zorv::OVPN_SERVER_TYPE;
  record.action = action;
  put_text(record.username, login_name(environment));
  put_text(record.device_info, device_info(environment));
  put_text(record.source_ip,
           first_of(environment, {"trusted_ip", "trusted_ip6", "untrusted_ip", "untrusted_ip6"}));
  put_text(record.outgoing, value_of(environment, "dev"));
  return record;
}

// The database keeps larger ones as inexact reals.
constexpr unsigned long long kLargestKept = std::numeric_limits<long long>::max();

unsigned long long login_time(const Environment& environment) {
  return number_of(environment, "time_unix", kLargestKept);
}

// An IPv4 address and an IPv6 address, with a comma between where both are set.
std::string both_of(const Environment& environment, std::string_view name, std::string_view name6) {
  const std::string_view address = value_of(environment, name);
  const std::string_view address6 = value_of(environment, name6);
  return fmt::format("{}{}{}", address, !address.empty() && !address6.empty() ? "," : "", address6);
}

std::string pool_address(const Environment& environment) {
  return both_of(environment, "ifconfig_pool_remote_ip", "ifconfig_pool_remote_ip6");
}

// A counter of the tunnel's interface; 0 where that is gone.
long long interface_bytes(const Environment& environment, const char* counter) {
  const std::string_view interface = value_of(environment, "dev");
  unsigned long long bytes = 0;
  if (interface.find('/') == std::string_view::npos) {
    std::ifstream file(fmt::format("/sys/class/net/{}/statistics/{}", interface, counter));
    file >> bytes;
  }
  return static_cast<long long>(std::min(bytes, kLargestKept));
}

db_conn_client_log_data client_record_of(const Environment& environment, int action,
                                         std::time_t now) {
  db_conn_client_log_data record{};
  record.vpn_type = zorv::OVPN_CLIENT_TYPE;
  record.action = action;
  put_text(record.username, value_of(environment, "username"));
  put_text(record.vpn_ip, both_of(environment, "ifconfig_local", "ifconfig_ipv6_local"));
  record.time = static_cast<unsigned long long>(now);
  return record;
}

}  // namespace

std::string_view value_of(const Environment& environment, std::string_view name) {
  const auto found = environment.find(name);
  return found == environment.end() ? std::string_view() : std::string_view(found->second);
}

Environment environment_of(const char* const* entries) {
  Environment environment;
  for (; entries != nullptr && *entries != nullptr; ++entries) {
    const std::string_view entry = *entries;
    const size_t equals = entry.find('=');
    if (equals != std::string_view::npos) {
      environment.emplace(entry.substr(0, equals), entry.substr(equals + 1));
    }
  }
  return environment;
}

ScriptType script_type(const Environment& environment) {
  const std::string_view name = value_of(environment, "script_type");
  for (const TypeName& known : kTypeNames) {
    if (known.name == name) {
      return known.type;
    }
  }
  return ScriptType::other;
}

std::string login_name(const Environment& environment) {
  return zorv::record_text(first_of(environment, {"username", "common_name"}), kTextSize - 1);
}

db_conn_server_log login_record(const Environment& environment, std::time_t now) {
  db_conn_server_log record = record_of(environment, zorv::kLoginOk);
  put_text(record.vpn_ip, pool_address(environment));
  record.time = login_time(environment);
  if (record.time == 0) {
    record.time = static_cast<unsigned long long>(now);
  }
  return record;
}

db_conn_server_log logout_record(const Environment& environment, std::time_t now) {
  db_conn_server_log record = record_of(environment, zorv::kLogout);
  put_text(record.vpn_ip, pool_address(environment));
  record.uptime = number_of(environment, "time_duration", kLargestKept);
  record.tx_total = static_cast<long long>(number_of(environment, "bytes_sent", kLargestKept));
  record.rx_total = static_cast<long long>(number_of(environment, "bytes_received", kLargestKept));
  const unsigned long long login = login_time(environment);
  record.time = login + record.uptime;  // neither is more than half of what fits
  if (login == 0 || record.time > kLargestKept) {
    record.time = static_cast<unsigned long long>(now);
  }
  return record;
}

db_conn_server_log failed_login_record(const Environment& environment, std::time_t now) {
  db_conn_server_log record = record_of(environment, zorv::kLoginFail);
  record.time = static_cast<unsigned long long>(now);
  return record;
}

db_conn_client_log_data connected_record(const Environment& environment, std::time_t now) {
  return client_record_of(environment, zorv::kLoginOk, now);
}

db_conn_client_log_data disconnected_record(const Environment& environment, std::time_t now,
                                            unsigned long long uptime) {
  db_conn_client_log_data record = client_record_of(environment, zorv::kLogout, now);
  record.uptime = uptime;
  record.tx_total = interface_bytes(environment, "tx_bytes");
  record.rx_total = interface_bytes(environment, "rx_bytes");
  return record;
}

unsigned long long client_start_time(const Environment& environment) {
  return number_of(environment, "daemon_start_time", kLargestKept);
}

bool is_renegotiation(const Environment& environment) {
  return !first_of(environment, {"trusted_ip", "trusted_ip6"}).empty() &&
         !value_of(environment, "time_unix").empty() && !pool_address(environment).empty();
}

bool is_expired_token(const Environment& environment) {
  return value_of(environment, "session_state").starts_with("Expired");
}

bool is_verified_token(const Environment& environment) {
  return value_of(environment, "session_state") == "Authenticated";
}

}  // namespace zorvctl
