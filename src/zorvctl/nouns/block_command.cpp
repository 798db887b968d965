#include <CLI/CLI.hpp>

#include <memory>

#include "block_time.h"
#include "commands.h"
#include "daemon_answer.h"
#include "display_text.h"
#include "duration.h"
#include "exit_status.h"
#include "login_policy.h"
#include "table_look.h"
#include "zorv_calls.h"

namespace zorvctl {
namespace {

using zorv::BlockState;

std::optional<zorv::LoginPolicy> read_policy() {
  zorv::LoginPolicy policy;
  if (!zorv::read_login_policy(policy)) {
    complain("cannot read the login policy {}: who is blocked is unknown", zorv::kLoginPolicyFile);
    return std::nullopt;
  }
  return policy;
}

const char* state_text(BlockState state) {
  switch (state) {
    case BlockState::off:
      return "policy off";
    case BlockState::counting:
      return "counting";
    case BlockState::blocked:
      return "blocked";
    case BlockState::over:
      return "block over";
  }
  return "unknown";
}

bool fits(const std::string& username) {
  constexpr size_t kLongest = kTextSize - 1;
  if (username.size() <= kLongest) {
    return true;
  }
  complain("username: {} bytes are too many, a user name holds at most {}", username.size(),
           kLongest);
  return false;
}

std::string blocked_text(const std::string& username) {
  uint64_t seconds = 0;
  const zorv_api::CallDeadline deadline(zorv_api::kTimeoutMs);
  return zorv_api::ask_seconds_left(username, deadline, seconds)
             ? fmt::format("blocked, {} left", duration_text(seconds))
             : "blocked";
}

int check(const std::string& username, bool quiet) {
  if (!fits(username)) {
    return kUsage;
  }
  auto answer = zorv_api::BlockAnswer::unknown;
  const int status = report_status(zorv_api::check_block(username, answer), "check the user");
  if (status != kDone) {
    return status;
  }
  if (answer == zorv_api::BlockAnswer::unknown) {
    complain("whether {} is blocked is unknown: the daemon cannot read the login policy {}",
             display_text(username), zorv::kLoginPolicyFile);
    return kUnknown;
  }
  const bool blocked = answer == zorv_api::BlockAnswer::blocked;
  if (!quiet) {
    print(fmt::format("{}: {}\n", display_text(username),
                      blocked ? blocked_text(username) : "not blocked"));
  }
  return blocked ? kBlocked : kDone;
}

struct UserChange {
  TableLook before;
  TableLook after;
};

// Calls the daemon, and looks at the user's row before and afterwards.
int change_user(const std::string& username, int (*call)(const std::string& username),
                const std::string& what, UserChange* ret) {
  if (!fits(username)) {
    return kUsage;
  }
  const RecordQuery row = where(*zorv::kUserBlock.find("username"), username, {});
  int status = look_or_complain(zorv::kUserBlock, what, ret->before, row);
  if (status == kDone) {
    status = report_status(call(username), what);
  }
  return status == kDone ? look_or_complain(zorv::kUserBlock, what, ret->after, row) : status;
}

int fail(const std::string& username) {
  constexpr const char* kWhat = "count a failed login";
  UserChange user;
  const int status = change_user(
      username, [](const std::string& name) { return zorv_api::count_failure(name); }, kWhat,
      &user);
  if (status == kDone && user.after.row == user.before.row) {
    complain("cannot {}: the daemon kept nothing, its log says why", kWhat);
    return kFailed;
  }
  return status;
}

int remove(const std::string& username, bool quiet) {
  constexpr const char* kWhat = "remove the user";
  UserChange user;
  const int status = change_user(
      username, [](const std::string& name) { return zorv_api::forget_failures(name); }, kWhat,
      &user);
  if (status == kDone && user.after.id) {
    complain("cannot {}: {} is still there, the daemon's log says why", kWhat,
             display_text(username));
    return kFailed;
  }
  if (status == kDone && !user.before.id && !quiet) {
    complain("there is no user '{}' with failed logins", display_text(username));
  }
  return status;
}

int show_policy(bool json) {
  const auto policy = read_policy();
  if (!policy) {
    return kFailed;
  }
  if (json) {
    print(fmt::format("{{\"enable\": {}, \"limit\": {}, \"time\": {}}}\n", policy->enabled,
                      policy->limit, policy->minutes));
    return kDone;
  }
  print(fmt::format("policy      {}\nlimit       {} failed logins\nblock time  {} ({} min)\n",
                    policy->enabled ? "on" : "off", policy->limit,
                    duration_text(zorv::block_seconds(policy->minutes)), policy->minutes));
  return kDone;
}

// A verb that takes one user name.
struct UserVerb {
  std::shared_ptr<std::string> username = std::make_shared<std::string>();
  std::shared_ptr<bool> quiet = std::make_shared<bool>(false);
  CLI::App* verb;

  UserVerb(CLI::App& noun, const char* name, const char* description)
      : verb(noun.add_subcommand(name, description)) {
    verb->add_option("user", *username, "The user's name, exactly")->required()->type_name("USER");
  }
};

}  // namespace

std::vector<ComputedColumn> block_columns() {
  const auto policy = read_policy();
  const std::time_t now = std::time(nullptr);
  const auto verdict = [policy, now](const void* record) {
    const auto& user = *static_cast<const db_privilege_user_block_data*>(record);
    return policy ? std::optional(block_verdict(*policy, user.limit, user.timestamp, now))
                  : std::nullopt;
  };
  return {{"LIMIT", true,
           [policy](const void*) -> std::string {
             return policy ? fmt::to_string(policy->limit) : "-";
           }},
          {"STATE", false,
           [verdict](const void* record) -> std::string {
             const auto found = verdict(record);
             return found ? state_text(found->state) : "unknown";
           }},
          {"LEFT", true, [verdict](const void* record) -> std::string {
             const auto found = verdict(record);
             return found && found->state == BlockState::blocked
                        ? duration_text(found->seconds_left)
                        : "-";
           }}};
}

void add_check_and_fail_verbs(CLI::App& noun, const zorv::TableSchema& /*table*/, Run* run) {
  const UserVerb checked(noun, "check", "Say whether a user is blocked");
  checked.verb->add_flag("-q,--quiet", *checked.quiet, "Only the exit status");
  checked.verb->footer(
      "Ends with 4 when the user is blocked, with 0 when not, with 5 when the daemon cannot tell,\n"
      "because it cannot read the login policy: a server then lets the user try. A check also "
      "does\n"
      "what a login's check does: a user whose block time is over is forgotten, and while the\n"
      "policy is off, everyone is.");
  checked.verb->callback([=] { *run = [=] { return check(*checked.username, *checked.quiet); }; });

  const UserVerb failed(noun, "fail", "Count one failed login of a user");
  failed.verb->callback([=] { *run = [=] { return fail(*failed.username); }; });
}

void add_remove_verb(CLI::App& noun, const zorv::TableSchema& /*table*/, Run* run) {
  const UserVerb removed(noun, "remove", "Lift the block of a user and forget the failures");
  removed.verb->add_flag("-q,--quiet", *removed.quiet, "No word about a user who is not there");
  removed.verb->callback([=] { *run = [=] { return remove(*removed.username, *removed.quiet); }; });
}

void add_policy_verb(CLI::App& noun, Run* run) {
  auto json = std::make_shared<bool>(false);
  CLI::App* verb =
      noun.add_subcommand("policy", "Show the login policy that decides who is blocked");
  verb->add_flag("-j,--json", *json, "As one JSON object");
  verb->callback([=] { *run = [=] { return show_policy(*json); }; });
}

}  // namespace zorvctl
