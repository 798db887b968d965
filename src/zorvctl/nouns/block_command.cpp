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

int exit_status_of(zorv::PolicyReading::State state) {
  switch (state) {
    case zorv::PolicyReading::State::missing:
      return kPolicyMissing;
    case zorv::PolicyReading::State::broken:
      return kPolicyBroken;
    case zorv::PolicyReading::State::away:
      return kPolicyAway;
    case zorv::PolicyReading::State::refused:
      return kRefused;
    case zorv::PolicyReading::State::read:
    case zorv::PolicyReading::State::failed:
      break;
  }
  return kUnknown;
}

// The daemon only tells that it does not know: asked for the policy in its way, the service says
// why.
int complain_unknown(const std::string& username) {
  const zorv::PolicyReading reading = zorv::ask_login_policy();
  complain("whether {} is blocked is unknown: the daemon cannot read the login policy {}: {}",
           display_text(username), zorv::kLoginPolicyFile,
           reading.state == zorv::PolicyReading::State::read
               ? "it can be read from here, the daemon's log says why not from there"
               : display_text(reading.remark));
  return exit_status_of(reading.state);
}

std::string blocked_text(const std::string& username) {
  uint64_t seconds = 0;
  const zorv_api::CallDeadline deadline(zorv_api::kTimeoutMs);
  return zorv_api::ask_seconds_left(username, deadline, seconds)
             ? fmt::format("blocked, {} left", duration_text(seconds))
             : "blocked";
}

int check(const std::string& username, bool quiet) {
  if (!is_user_name(username)) {
    return kUsage;
  }
  auto answer = zorv_api::BlockAnswer::unknown;
  const int bus_status = zorv_api::check_block(username, answer);
  const int status = report_status(bus_status, "check the user");
  if (status != kDone) {
    return bus_status == KX_IS_REJECT ? kRefused : status;
  }
  if (answer == zorv_api::BlockAnswer::unknown) {
    return complain_unknown(username);
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
  if (!is_user_name(username)) {
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

bool is_user_name(const std::string& word) {
  constexpr size_t kLongest = kTextSize - 1;
  if (word.size() <= kLongest) {
    return true;
  }
  complain("username: {} bytes are too many, a user name holds at most {}", word.size(), kLongest);
  return false;
}

void add_check_and_fail_verbs(CLI::App& noun, const zorv::TableSchema& /*table*/, Run* run) {
  const UserVerb checked(noun, "check", "Say whether a user is blocked");
  checked.verb->add_flag("-q,--quiet", *checked.quiet, "Only the exit status");
  checked.verb->footer(
      "Ends with 4 when the user is blocked, with 0 when not. Nobody can tell with 6: there is no\n"
      "login policy, 7: it is broken, 8: the policy service does not answer, 9: it or the daemon\n"
      "does not serve this user, 5: the policy cannot be read for another reason; a server then\n"
      "lets the user try. A check also does what a login's check does: a user whose block time is\n"
      "over is forgotten, and while the policy is off, everyone is.");
  checked.verb->callback([=] { *run = [=] { return check(*checked.username, *checked.quiet); }; });

  const UserVerb failed(noun, "fail", "Count one failed login of a user");
  failed.verb->callback([=] { *run = [=] { return fail(*failed.username); }; });
}

void add_remove_verb(CLI::App& noun, const zorv::TableSchema& /*table*/, Run* run) {
  const UserVerb removed(noun, "remove", "Lift the block of a user and forget the failures");
  removed.verb->add_flag("-q,--quiet", *removed.quiet, "No word about a user who is not there");
  removed.verb->callback([=] { *run = [=] { return remove(*removed.username, *removed.quiet); }; });
}

}  // namespace zorvctl
