#include <CLI/CLI.hpp>

#include <memory>

#include "commands.h"
#include "decimal_option.h"
#include "display_text.h"
#include "duration.h"
#include "exit_status.h"
#include "login_policy_file.h"
#include "output_options.h"
#include "policy_complaint.h"
#include "whole_number.h"

namespace zorvctl {
namespace {

constexpr unsigned long long kMostFailures = 1'000'000;
constexpr unsigned long long kLongestBlock = 365ULL * 24 * 3600;

struct PolicyOptions {
  bool json = false;
  std::optional<std::string> limit;
  std::optional<std::string> time;
  bool enable = false;
  bool disable = false;
};

void print_policy(const zorv::LoginPolicy& policy, bool json) {
  if (json) {
    print(fmt::format("{{\"enable\": {}, \"limit\": {}, \"time\": {}}}\n", policy.enabled,
                      policy.limit, policy.minutes));
    return;
  }
  print(fmt::format("policy      {}\nlimit       {} failed logins\nblock time  {} ({} min)\n",
                    policy.enabled ? "on" : "off", policy.limit,
                    duration_text(zorv::block_seconds(policy.minutes)), policy.minutes));
}

int show_policy(bool json) {
  const zorv::PolicyReading reading = read_policy_or_complain();
  if (reading.state != zorv::PolicyReading::State::read) {
    return kFailed;
  }
  print_policy(reading.policy, json);
  return kDone;
}

int read_change(const PolicyOptions& options, zorv::PolicyChange& ret_change) {
  zorv::PolicyChange change;
  if (options.enable || options.disable) {
    change.enabled = options.enable;
  }
  unsigned long long number = 0;
  if (options.limit) {
    if (!whole_number(*options.limit, &number) || number < 1 || number > kMostFailures) {
      complain("--limit: '{}' is not a number of failed logins from 1 to {}",
               display_text(*options.limit), kMostFailures);
      return kUsage;
    }
    change.limit = static_cast<int>(number);
  }
  if (options.time) {
    // Seconds by themselves elsewhere, minutes in the file: without a unit it could be either.
    if (whole_number(*options.time, &number) || parse_duration(*options.time, &number) != 0 ||
        number < 1 || number > kLongestBlock) {
      complain(
          "--time: '{}' is not a duration with its unit, such as 90s, 10m or 1h30m, up to 365d",
          display_text(*options.time));
      return kUsage;
    }
    change.minutes = zorv::minutes_of(number);
  }
  if (!change.enabled && !change.limit && !change.minutes) {
    complain("block policy set: say what: --limit, --time, --enable or --disable");
    return kUsage;
  }
  ret_change = change;
  return kDone;
}

bool follows(const zorv::LoginPolicy& policy, const zorv::PolicyChange& change) {
  return policy.enabled == change.enabled.value_or(policy.enabled) &&
         policy.limit == change.limit.value_or(policy.limit) &&
         policy.minutes == change.minutes.value_or(policy.minutes);
}

int set_policy(const PolicyOptions& options) {
  zorv::PolicyChange change;
  if (const int status = read_change(options, change); status != kDone) {
    return status;
  }
  if (const std::string reason = zorv::change_login_policy(change); !reason.empty()) {
    complain("cannot set the login policy {}: {}", zorv::kLoginPolicyFile, display_text(reason));
    return kFailed;
  }
  const zorv::PolicyReading reading = zorv::ask_login_policy();
  if (reading.state != zorv::PolicyReading::State::read) {
    complain("the login policy {} is written, but cannot be read back: {}", zorv::kLoginPolicyFile,
             display_text(reading.remark));
    return kFailed;
  }
  print_policy(reading.policy, options.json);
  complain_odd(reading);
  if (!follows(reading.policy, change)) {
    complain("the login policy {} is written, but the policy service reads something else",
             zorv::kLoginPolicyFile);
    return kFailed;
  }
  return kDone;
}

}  // namespace

void add_policy_verb(CLI::App& noun, Run* run) {
  auto options = std::make_shared<PolicyOptions>();
  CLI::App* verb =
      noun.add_subcommand("policy", "Show or set the login policy that decides who is blocked");
  verb->require_subcommand(0, 1);
  CLI::App* set = verb->add_subcommand("set", "Change what is given, and show the policy");
  for (CLI::App* app : {verb, set}) {
    app->add_flag("-j,--json", options->json, "As one JSON object");
  }
  set->add_option("--limit", given(options->limit), "So many failed logins block a user")
      ->type_name("N");
  set->add_option("--time", given(options->time), "For so long, counted from the last of them")
      ->type_name("DURATION");
  CLI::Option* enable = set->add_flag("--enable", options->enable, "Block users");
  set->add_flag("--disable", options->disable, "Block nobody, and forget the failed logins")
      ->excludes(enable);
  set->footer(fmt::format(
      "A duration has a unit: 90s, 10m, 1h30m. What else stands in {}\n"
      "is kept. Where there is no such file it is made: {}, {} failed logins, {} minutes, but for\n"
      "what is given.\n\n"
      "Example:\n"
      "  zorvctl block policy set --limit 10 --time 10m --enable",
      zorv::kLoginPolicyFile, zorv::kDefaultPolicyIsOn ? "enabled" : "disabled",
      zorv::kDefaultPolicyLimit, zorv::kDefaultPolicyMinutes));
  verb->callback([=] {
    *run = [options, is_set = set->parsed()] {
      return is_set ? set_policy(*options) : show_policy(options->json);
    };
  });
}

}  // namespace zorvctl
