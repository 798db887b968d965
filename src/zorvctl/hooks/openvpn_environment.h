// The environment that an OpenVPN server gives its scripts, read as connection records.
//
// Nothing here trusts a value: whatever the variables hold, a record comes out. Texts are cut to
// their field between two characters, numbers that are none read as 0, and numbers too large as the
// largest.
#pragma once

#include <ctime>
#include <map>
#include <string>

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
  other,
};

ScriptType script_type(const Environment& environment);

// `username`, or the certificate's `common_name` where there is none; cut to a user name's length.
std::string login_name(const Environment& environment);

// The record of a login, a logout, or a login that failed. `now` is used only where the environment
// does not tell the time: a login happened at time_unix, a logout time_duration later.
db_conn_server_log login_record(const Environment& environment, std::time_t now);
db_conn_server_log logout_record(const Environment& environment, std::time_t now);
db_conn_server_log failed_login_record(const Environment& environment, std::time_t now);

// A client that shows a token of ours that has expired has not guessed a password.
bool is_expired_token(const Environment& environment);

}  // namespace zorvctl
