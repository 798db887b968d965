#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <optional>

#include "daemon_answer.h"
#include "display_text.h"
#include "exit_status.h"
#include "hook.h"
#include "login_checker.h"
#include "openvpn_environment.h"
#include "zorv_calls.h"

namespace zorvctl {
namespace {

// What OpenVPN takes an exit status for.
constexpr int kGoOn = 0;
constexpr int kRefuse = 1;
constexpr int kWait = 2;
static_assert(kFailed == kRefuse);  // so are words that are wrong before a hook is named

constexpr const char* kHookHelp =
    "In the server's configuration (script-security 2):\n"
    "  client-connect        \"/usr/bin/zorvctl hook openvpn\"\n"
    "  client-disconnect     \"/usr/bin/zorvctl hook openvpn\"\n"
    "  auth-user-pass-verify \"/usr/bin/zorvctl hook openvpn -- CHECKER ARG\" via-file\n\n"
    "A login and a logout become records of \"server-log\". A user who is blocked is refused "
    "before\n"
    "CHECKER, which is what would stand there without zorvctl, sees the password. When CHECKER\n"
    "refuses, the failure is counted and recorded. A verdict that CHECKER defers is handed on and\n"
    "not counted.\n\n"
    "Without \"-- CHECKER\" only the block is judged: EVERY password is accepted here, so a\n"
    "plugin or the client's certificate has to prove who it is, and failures are not seen, since\n"
    "OpenVPN does not tell scripts what a plugin found. Words without the -- refuse everyone.\n\n"
    "The scripts run as the server's user: zorvd answers root, its own user and whoever\n"
    "/etc/config/kxbus/zorvd.allow names (a line \"user NAME\" or \"group NAME\").\n"
    "A daemon that does not answer never makes OpenVPN refuse a client: it is said on standard\n"
    "error, which OpenVPN writes to its log.\n\n"
    "Exit status, as OpenVPN reads it: 0 go on, 1 refuse (wrong words, too), 2 deferred by "
    "CHECKER.";

// The words of the server's configuration, and behind them those that OpenVPN adds.
struct HookWords {
  std::vector<std::string> before;                  // "--", or all of them
  std::optional<std::vector<std::string>> checker;  // behind "--"
};

HookWords split(const std::vector<std::string>& words) {
  const auto mark = std::find(words.begin(), words.end(), "--");
  HookWords result{{words.begin(), mark}, std::nullopt};
  if (mark != words.end()) {
    result.checker.emplace(mark + 1, words.end());
  }
  return result;
}

// A record that cannot be kept is said and forgotten: the client goes on.
void keep(const db_conn_server_log& record) {
  if (const int status = zorv_api::insert(zorv::kServerLog, &record); status != 0) {
    complain("hook: the connection of {} is not recorded: {}", display_text(record.username),
             status_text(status));
  }
}

bool is_via_env(const Environment& environment) {
  return environment.count("password") != 0;
}

// A checker that is not understood as one would leave every password unchecked. Without one, the
// only word is the file that OpenVPN names with "via-file".
bool names_checker_or_none(const HookWords& words, const Environment& environment) {
  if (words.checker) {
    if (words.checker->empty()) {
      complain("hook: no password checker stands behind --");
    }
    return !words.checker->empty();
  }
  const size_t added = is_via_env(environment) ? 0 : 1;
  for (const std::string& word : words.before) {
    if (words.before.size() > added || word.starts_with('-')) {
      complain("hook: '{}' is not understood: the password checker stands behind --",
               display_text(word));
      return false;
    }
  }
  return true;
}

// With "via-file" the user's name may stand only in the file's first line.
void take_name_from_file(const HookWords& words, Environment* environment) {
  const auto& last_of = words.checker ? *words.checker : words.before;
  if (last_of.empty() || is_via_env(*environment) || !login_name(*environment).empty()) {
    return;
  }
  std::ifstream file(last_of.back(), std::ios::binary);
  std::string name(kTextSize, '\0');
  file.read(name.data(), static_cast<std::streamsize>(name.size()));
  name.resize(static_cast<size_t>(file.gcount()));
  name.resize(std::min(name.find_first_of(std::string_view("\r\n\0", 3)), name.size()));
  (*environment)["username"] = name;
}

int verify_login(Environment environment, const HookWords& words) {
  if (!names_checker_or_none(words, environment)) {
    complain("hook: everyone is refused until the server's configuration is mended");
    return kRefuse;
  }
  take_name_from_file(words, &environment);
  const std::string user = login_name(environment);
  // One that the daemon cannot judge by its policy is not blocked.
  auto answer = zorv_api::BlockAnswer::unknown;
  const int answered = zorv_api::check_block(user, answer);
  if (answered != 0) {
    complain("hook: {} may be blocked, the login goes on unchecked and unrecorded: {}",
             display_text(user), status_text(answered));
  }
  if (answer == zorv_api::BlockAnswer::blocked) {
    complain("hook: {} is refused: blocked after too many failed logins", display_text(user));
    keep(failed_login_record(environment, std::time(nullptr)));
    return kRefuse;
  }
  if (!words.checker) {
    return kGoOn;
  }
  switch (run_checker(*words.checker)) {
    case Verdict::accepted:
      return kGoOn;
    case Verdict::deferred:
      return kWait;
    case Verdict::broken:
      complain("hook: {} is refused: the password could not be checked", display_text(user));
      return kRefuse;
    case Verdict::refused:
      break;
  }
  // OpenVPN serves nobody while its script waits: a daemon that did not answer is not asked again.
  if (answered == 0 && !is_expired_token(environment)) {
    if (const int status = zorv_api::count_failure(user); status != 0) {
      complain("hook: a failed login of {} is not counted: {}", display_text(user),
               status_text(status));
    }
    keep(failed_login_record(environment, std::time(nullptr)));
  }
  return kRefuse;
}

int openvpn_hook(const HookWords& words) {
  const Environment environment = environment_of(environ);
  if (words.checker && !words.before.empty()) {
    complain("hook: '{}' must not stand before --", display_text(words.before.front()));
    return kRefuse;
  }
  switch (script_type(environment)) {
    case ScriptType::client_connect:
      keep(login_record(environment, std::time(nullptr)));
      return kGoOn;
    case ScriptType::client_disconnect:
      keep(logout_record(environment, std::time(nullptr)));
      return kGoOn;
    case ScriptType::user_pass_verify:
      return verify_login(environment, words);
    case ScriptType::other:
      complain("hook: nothing to do as script of this type, see zorvctl hook openvpn --help");
      return kGoOn;
    case ScriptType::none:
      break;
  }
  complain(
      "hook: script_type is not set: this is for an OpenVPN server to run, see zorvctl hook "
      "openvpn --help");
  return kRefuse;
}

// Whatever goes wrong here is no reason to refuse a client, unless its password is unchecked.
int run_openvpn_hook(const std::vector<std::string>& words) {
  const HookWords split_words = split(words);
  try {
    return openvpn_hook(split_words);
  } catch (const std::exception& error) {
    complain("hook: {}", error.what());
    return split_words.checker ? kRefuse : kGoOn;
  }
}

}  // namespace

extern const Hook kOpenVpnHook = {
    "openvpn", "Run by an OpenVPN 2.6 server as its script: hook openvpn [-- CHECKER WORD ...]",
    kHookHelp, "script_type", run_openvpn_hook};

}  // namespace zorvctl
