// The environment that an OpenVPN server gives its scripts, read as connection records.
//
// Nothing here trusts a value: whatever the variables hold, a record comes out. Texts are cut to
// their field between two characters and have '_' for control characters, numbers that are none
// read as 0, and numbers too large as the largest.
#pragma once

#include <ctime>
#include <map>
#include <string>
#include <string_view>

#include "zorv_records.h"

namespace zorvctl {

using Environment = std::map<std::string, std::string, std::less<>>;

// From "NAME=VALUE" entries, ended by a null pointer.
Environment environment_of(const char* const* entries);

enum class ScriptType {
  none,  // not run by OpenVPN
  client_connect,
  client_disconnect,
  user_pass_verify,
  route_up,  // of a client, as is `down`
  down,
  other,
};

ScriptType script_type(const Environment& environment);

// `username`, or the certificate's `common_name` where there is none; as it stands in
// the records.
std::string login_name(const Environment& environment);

// The record of a login, a logout, or a login that failed. `now` is used only where the environment
// does not tell the time: a login happened at time_unix, a logout time_duration later.
db_conn_server_log login_record(const Environment& environment, std::time_t now);
db_conn_server_log logout_record(const Environment& environment, std::time_t now);
db_conn_server_log failed_login_record(const Environment& environment, std::time_t now);

// What this machine did as a client: it connected, or disconnected after `uptime` seconds.
db_conn_client_log_data connected_record(const Environment& environment, std::time_t now);
db_conn_client_log_data disconnected_record(const Environment& environment, std::time_t now,
                                            unsigned long long uptime);

// When the client's process started, in seconds since the epoch; 0 where it does not say.
unsigned long long client_start_time(const Environment& environment);

// A client that is in proves once more who it is. That is no login.
bool is_renegotiation(const Environment& environment);

// In place of a password the client shows a token of the server's. One that has expired is no
// guessed password, and one that the server has found to be its own proves who the client is.
bool is_expired_token(const Environment& environment);
bool is_verified_token(const Environment& environment);

// The value of a variable, empty where it is not set.
std::string_view value_of(const Environment& environment, std::string_view name);

}  // namespace zorvctl
