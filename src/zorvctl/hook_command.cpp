#include <unistd.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <fstream>
#include <memory>

#include "commands.h"
#include "daemon_answer.h"
#include "display_text.h"
#include "exit_status.h"
#include "login_checker.h"
#include "login_guard.h"
#include "openvpn_environment.h"
#include "zorv_api_db.h"

namespace zorvctl {
namespace {

// What OpenVPN takes an exit status for.
constexpr int kGoOn = 0;
constexpr int kRefuse = 1;
constexpr int kWait = 2;

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
    "Without CHECKER only the block is judged: EVERY password is accepted here, so a plugin or "
    "the\n"
    "client's certificate has to prove who it is, and failures are not seen, since OpenVPN does\n"
    "not tell scripts what a plugin found.\n\n"
    "The scripts run as the server's user: zorvd answers root, its own user and whoever\n"
    "/etc/config/kxbus/zorvd.allow names (a line \"user NAME\" or \"group NAME\").\n"
    "A daemon that does not answer never makes OpenVPN refuse a client: it is said on standard\n"
    "error, which OpenVPN writes to its log.";

// A record that cannot be kept is said and forgotten: the client goes on.
void keep(db_conn_server_log record) {
  if (const int status = add_conn_server_log(&record); status != 0) {
    complain("hook: the connection of {} is not recorded: {}", display_text(record.username),
             status_text(status));
  }
}

// With "via-file" the user's name may stand only in the file's first line.
void take_name_from_file(const std::vector<std::string>& words, Environment* environment) {
  const bool via_env = environment->count("password") != 0;
  if (words.empty() || via_env || !login_name(*environment).empty()) {
    return;
  }
  std::ifstream file(words.back(), std::ios::binary);
  std::string name(kTextSize, '\0');
  file.read(name.data(), static_cast<std::streamsize>(name.size()));
  name.resize(static_cast<size_t>(file.gcount()));
  name.resize(std::min(name.find_first_of(std::string_view("\r\n\0", 3)), name.size()));
  (*environment)["username"] = name;
}

int verify_login(Environment environment, const std::vector<std::string>& words, bool has_checker) {
  take_name_from_file(words, &environment);
  const std::string user = login_name(environment);
  const CheckAnswer answer = check_user(user);
  const bool daemon_answers = answer.bus_status == 0;
  if (!daemon_answers) {
    complain("hook: {} may be blocked, the login goes on unchecked and unrecorded: {}",
             display_text(user), status_text(answer.bus_status));
  }
  if (answer.blocked) {
    complain("hook: {} is refused: blocked after too many failed logins", display_text(user));
    keep(failed_login_record(environment, std::time(nullptr)));
    return kRefuse;
  }
  if (!has_checker) {
    return kGoOn;
  }
  switch (run_checker(words)) {
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
  if (daemon_answers && !is_expired_token(environment)) {
    if (const int status = count_failure(user); status != 0) {
      complain("hook: a failed login of {} is not counted: {}", display_text(user),
               status_text(status));
    }
    keep(failed_login_record(environment, std::time(nullptr)));
  }
  return kRefuse;
}

int openvpn_hook(const std::vector<std::string>& words, bool has_checker) {
  const Environment environment = environment_of(environ);
  switch (script_type(environment)) {
    case ScriptType::client_connect:
      keep(login_record(environment, std::time(nullptr)));
      return kGoOn;
    case ScriptType::client_disconnect:
      keep(logout_record(environment, std::time(nullptr)));
      return kGoOn;
    case ScriptType::user_pass_verify:
      return verify_login(environment, words, has_checker);
    case ScriptType::other:
      complain("hook: nothing to do as script of this type, see zorvctl hook openvpn --help");
      return kGoOn;
    case ScriptType::none:
      break;
  }
  complain(
      "hook: script_type is not set: this is for an OpenVPN server to run, see zorvctl hook "
      "openvpn --help");
  return kUsage;
}

// Whatever goes wrong here is no reason to refuse a client, unless its password is unchecked.
int run_hook(const std::vector<std::string>& words, bool has_checker) {
  try {
    return openvpn_hook(words, has_checker);
  } catch (const std::exception& error) {
    complain("hook: {}", error.what());
    return has_checker ? kRefuse : kGoOn;
  }
}

}  // namespace

void add_hook_noun(CLI::App& program, Run* run) {
  CLI::App* noun = program.add_subcommand("hook", "What VPN servers run to record connections");
  noun->require_subcommand(1);
  CLI::App* verb = noun->add_subcommand("openvpn", "Run by an OpenVPN 2.6 server as its script");
  // Only the first word is an option's: an option of many words would take some of them apart.
  auto first = std::make_shared<std::string>();
  const CLI::Option* word =
      verb->add_option("word", *first,
                       "Behind --, the password checker and its words; last, OpenVPN's file")
          ->type_name("[--] WORD ...");
  verb->allow_extras();
  verb->footer(kHookHelp);
  verb->callback([=] {
    std::vector<std::string> words = verb->remaining();
    const bool marked = !words.empty() && words.front() == "--";
    if (marked) {
      words.erase(words.begin());
    }
    if (word->count() != 0) {
      words.insert(words.begin(), *first);
    }
    *run = [words, marked] { return run_hook(words, marked && !words.empty()); };
  });
}

}  // namespace zorvctl
