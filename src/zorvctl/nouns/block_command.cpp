#include <CLI/CLI.hpp>

#include <memory>

#include "commands.h"
#include "daemon_answer.h"
#include "display_text.h"
#include "duration.h"
#include "exit_status.h"
#include "login_guard.h"
#include "login_policy.h"
#include "table_look.h"
#include "zorv_api_db.h"

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

bool fits(const std::string& username) {
  constexpr size_t kLongest = kTextSize - 1;
  if (username.size() <= kLongest) {
    return true;
  }
  complain("username: {} bytes are too many, a user name holds at most {}", username.size(),
           kLongest);
  return false;
}

int check(const std::string& username, bool quiet) {
  if (!fits(username)) {
    return kUsage;
  }
  const CheckAnswer answer = check_user(username);
  if (answer.bus_status != 0) {
    return report_status(answer.bus_status, "check the user");
  }
  if (!quiet) {
    print(fmt::format("{}: {}\n", display_text(username),
                      answer.blocked ? "blocked" : "not blocked"));
  }
  return answer.blocked ? kBlocked : kDone;
}

RecordQuery row_of(const std::string& username) {
  return where(*find_column(kBlock.columns, "username"), username, {});
}

int fail(const std::string& username) {
  constexpr const char* kWhat = "count a failed login";
  if (!fits(username)) {
    return kUsage;
  }
  const TableLook before = look(kBlock, row_of(username));
  if (const int status = report_query_end(before.end, kWhat); status != kDone) {
    return status;
  }
  if (const int status = report_status(count_failure(username), kWhat); status != kDone) {
    return status;
  }
  const TableLook after = look(kBlock, row_of(username));
  if (const int status = report_query_end(after.end, kWhat); status != kDone) {
    return status;
  }
  if (after.row == before.row) {
    complain("cannot {}: the daemon kept nothing, its log says why", kWhat);
    return kFailed;
  }
  return kDone;
}

int remove(const std::string& username, bool quiet) {
  constexpr const char* kWhat = "remove the user";
  if (!fits(username)) {
    return kUsage;
  }
  const RecordQuery row = row_of(username);
  const TableLook before = look(kBlock, row);
  if (const int status = report_query_end(before.end, kWhat); status != kDone) {
    return status;
  }
  std::string name = username;
  if (const int status = report_status(delete_privilege_user_block(name.data()), kWhat);
      status != kDone) {
    return status;
  }
  const TableLook after = look(kBlock, row);
  if (const int status = report_query_end(after.end, kWhat); status != kDone) {
    return status;
  }
  if (after.id) {
    complain("cannot {}: {} is still there, the daemon's log says why", kWhat,
             display_text(username));
    return kFailed;
  }
  if (!before.id && !quiet) {
    complain("there is no user '{}' with failed logins", display_text(username));
  }
  return kDone;
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
CLI::App* add_user_verb(CLI::App& noun, const char* name, const char* description,
                        const std::shared_ptr<std::string>& username) {
  CLI::App* verb = noun.add_subcommand(name, description);
  verb->add_option("user", *username, "The user's name, exactly")->required()->type_name("USER");
  return verb;
}

}  // namespace

void add_block_noun(CLI::App& program, Run* run) {
  CLI::App* noun = program.add_subcommand(kBlock.noun, kBlock.description);
  noun->require_subcommand(1);
  add_list_verb(*noun, kBlock, block_columns, run);

  auto username = std::make_shared<std::string>();
  auto quiet = std::make_shared<bool>(false);
  CLI::App* verb = add_user_verb(*noun, "check", "Say whether a user is blocked", username);
  verb->add_flag("-q,--quiet", *quiet, "Only the exit status");
  verb->footer(
      "Ends with 4 when the user is blocked, with 0 when not. A check also does what a login's\n"
      "check does: a user whose block time is over is forgotten, and while the policy is off,\n"
      "everyone is.");
  verb->callback([=] { *run = [=] { return check(*username, *quiet); }; });

  verb = add_user_verb(*noun, "fail", "Count one failed login of a user", username);
  verb->callback([=] { *run = [=] { return fail(*username); }; });

  verb =
      add_user_verb(*noun, "remove", "Lift the block of a user and forget the failures", username);
  verb->add_flag("-q,--quiet", *quiet, "No word about a user who is not there");
  verb->callback([=] { *run = [=] { return remove(*username, *quiet); }; });

  add_clean_verb(*noun, kBlock, run);

  auto json = std::make_shared<bool>(false);
  verb = noun->add_subcommand("policy", "Show the login policy that decides who is blocked");
  verb->add_flag("-j,--json", *json, "As one JSON object");
  verb->callback([=] { *run = [=] { return show_policy(*json); }; });
}

}  // namespace zorvctl
