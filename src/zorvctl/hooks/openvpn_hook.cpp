#include <unistd.h>

#include <cstring>
#include <ctime>

#include "call_deadline.h"
#include "exit_status.h"
#include "hook.h"
#include "openvpn_environment.h"
#include "openvpn_login.h"
#include "undelivered.h"
#include "zorv_calls.h"

namespace zorvctl {
namespace {

using zorv_api::CallDeadline;

static_assert(kFailed == kRefuse);  // so are words that are wrong before a hook is named

constexpr const char* kHookHelp =
    "In a server's configuration (script-security 2):\n"
    "  client-connect        \"/etc/zorv/openvpn-hook\"\n"
    "  client-disconnect     \"/etc/zorv/openvpn-hook\"\n"
    "  auth-user-pass-verify \"/etc/zorv/openvpn-hook -- CHECKER ARG\" via-file\n\n"
    "A login and a logout become records of \"server-log\". A user who is blocked is refused "
    "before\n"
    "CHECKER, which is what would stand there without zorvctl, sees the password, and is told for\n"
    "how long. When CHECKER refuses, the failure is counted and recorded; when it accepts, "
    "earlier\n"
    "failures are forgotten. A verdict that CHECKER defers is handed on and not counted. At a\n"
    "renegotiation nobody is blocked, and a token that the server has verified is not shown to\n"
    "CHECKER.\n\n"
    "Without \"-- CHECKER\" only the block is judged: EVERY password is accepted here, so a\n"
    "plugin or the client's certificate has to prove who it is, and failures are not seen, since\n"
    "OpenVPN does not tell scripts what a plugin found. Words without the -- refuse everyone.\n\n"
    "In front of the -- may stand, for auth-user-pass-verify:\n"
    "  --on-daemon-away accept|refuse  what becomes of a login while the daemon does not say\n"
    "                                  whether the user is blocked: accept if not given\n"
    "  --deadline SECONDS              how long the daemon may hold up a login, and everybody "
    "with\n"
    "                                  it: 1 to 60, 3 if not given\n\n"
    "The scripts run as the server's user: zorvd answers root, its own user and whoever\n"
    "/etc/config/kxbus/zorvd.allow names (a line \"user NAME\" or \"group NAME\"). What the "
    "daemon\n"
    "does not take is said on standard error, which OpenVPN writes to its log; records wait in\n"
    "/var/spool/zorv until it is started again, counted failures do not.\n\n"
    "In a client's configuration, for records of \"client-log\":\n"
    "  setenv username alice\n"
    "  route-up \"/etc/zorv/openvpn-hook\"\n"
    "  down     \"/etc/zorv/openvpn-hook\"\n"
    "  down-pre\n\n"
    "Exit status, as OpenVPN reads it: 0 go on, 1 refuse (wrong words, too), 2 deferred by "
    "CHECKER.";

// Whatever becomes of the record, the connection goes on.
template <class Record>
int keep(const zorv::TableSchema& table, const Record& record, const CallDeadline& deadline) {
  keep_undelivered(
      zorv_api::insert(table, &record, zorv_api::new_buffer(), deadline.milliseconds_left()), table,
      &record, "the connection", record.username);
  return kGoOn;
}

// Since the connection's own record, or else since the client's process started.
unsigned long long connected_for(const Environment& environment, const std::string& vpn_ip,
                                 unsigned long long now, const CallDeadline& deadline) {
  db_query_cond newest{};
  newest.count = 1;
  newest.order_style = 1;
  zorv::copy_text(newest.field, "vpn_ip");
  zorv::copy_text(newest.value, vpn_ip);
  unsigned long long start = client_start_time(environment);
  zorv_api::Rows rows;
  if (zorv_api::query(zorv::kClientLog, newest, rows, zorv_api::new_buffer(),
                      deadline.milliseconds_left()) == 0 &&
      rows.count == 1) {
    const auto& row = *static_cast<const db_conn_client_log_data*>(rows.record(0));
    start = row.action == zorv::kLoginOk && row.time >= start ? row.time : start;
  }
  return start != 0 && start < now ? now - start : 0;
}

int disconnected(const Environment& environment, const CallDeadline& deadline) {
  const std::time_t now = std::time(nullptr);
  db_conn_client_log_data record = disconnected_record(environment, now, 0);
  record.uptime = connected_for(environment, record.vpn_ip, record.time, deadline);
  return keep(zorv::kClientLog, record, deadline);
}

int openvpn_hook(const HookWords& words) {
  const Environment environment = environment_of(environ);
  const std::time_t now = std::time(nullptr);
  const CallDeadline deadline(static_cast<uint32_t>(words.deadline_ms));
  switch (script_type(environment)) {
    case ScriptType::client_connect:
      return keep(zorv::kServerLog, login_record(environment, now), deadline);
    case ScriptType::client_disconnect:
      return keep(zorv::kServerLog, logout_record(environment, now), deadline);
    case ScriptType::user_pass_verify:
      return verify_login(environment, words);
    case ScriptType::route_up:
      return keep(zorv::kClientLog, connected_record(environment, now), deadline);
    case ScriptType::down:
      return disconnected(environment, deadline);
    case ScriptType::other:
      complain("hook: nothing to do as script of this type, see zorvctl hook openvpn --help");
      return kGoOn;
    case ScriptType::none:
      break;
  }
  complain(
      "hook: script_type is not set: this is for OpenVPN to run, see zorvctl hook openvpn --help");
  return kRefuse;
}

// Whatever goes wrong here is no reason to refuse a client, unless its password is unchecked.
int run_openvpn_hook(const std::vector<std::string>& words) {
  const HookWords split = hook_words(words);
  try {
    return openvpn_hook(split);
  } catch (const std::exception& error) {
    complain("hook: {}", error.what());
    return split.checker ? kRefuse : kGoOn;
  }
}

}  // namespace

extern const Hook kOpenVpnHook = {
    "openvpn", "Run by OpenVPN 2.6 as its script: hook openvpn [OPTION ...] [-- CHECKER WORD ...]",
    kHookHelp, "script_type", run_openvpn_hook};

}  // namespace zorvctl
