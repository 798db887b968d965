#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "commands.h"
#include "daemon_answer.h"
#include "decimal_option.h"
#include "display_text.h"
#include "duration.h"
#include "exit_status.h"
#include "output_options.h"
#include "policy_complaint.h"
#include "table_look.h"

namespace zorvctl {
namespace {

// As the columns of the server log.
struct CountedFailure {
  record_uint64 time;
  int vpn_type;
  char source_ip[kTextSize];
  char device_info[kTextSize];
};

constexpr zorv::Field kFields[] = {
    zorv::field<&CountedFailure::time>("time", "TIME", zorv::Meaning::time),
    zorv::code<&CountedFailure::vpn_type>("vpn_type", "PROTOCOL", zorv::kServerProtocols),
    zorv::field<&CountedFailure::source_ip>("source_ip", "SOURCE", zorv::Meaning::address),
    zorv::field<&CountedFailure::device_info>("device_info", "DEVICE", zorv::Meaning::text),
};

// A failure is counted and then recorded, by another program's clock.
constexpr uint64_t kGrace = 2;  // seconds

struct WhyOptions : OutputOptions {
  std::string user;
  unsigned long long limit = kDefaultLimit;
};

// The failed logins that were counted, as far as the log has them.
struct Failures {
  std::vector<CountedFailure> rows;  // the newest first, as many as are shown
  unsigned long long found = 0;
};

CountedFailure row_of(const db_conn_server_log& record) {
  CountedFailure row{};
  row.time = record.time;
  row.vpn_type = record.vpn_type;
  std::memcpy(row.source_ip, record.source_ip, sizeof row.source_ip);
  std::memcpy(row.device_info, record.device_info, sizeof row.device_info);
  return row;
}

// Whether the counting begins anew with this row: a peer of WireGuard proves nothing by a password.
bool forgets_failures(const db_conn_server_log& record) {
  return record.action == zorv::kLoginOk && record.vpn_type != zorv::WIREGUARD_SERVER_TYPE;
}

// The oldest row within the grace may be the last failure that was counted, and those behind it
// attempts that were refused because of the block: as many of them as the count can spare.
void leave_refused_out(unsigned long long at_most, unsigned long long counted,
                       unsigned long long shown, Failures& failures) {
  const auto refused = std::min(at_most, failures.found - std::min(failures.found, counted));
  failures.found = std::min(failures.found - refused, counted);
  auto& rows = failures.rows;
  rows.erase(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(refused));
  rows.resize(static_cast<size_t>(std::min<unsigned long long>(rows.size(), shown)));
}

int find_failures(const WhyOptions& options, const db_privilege_user_block_data& user,
                  bool is_limit_reached, Failures& ret) {
  const uint64_t last = user.timestamp & 0xffffffffU;
  const unsigned long long counted = static_cast<unsigned>(user.limit);
  const auto shown = options.limit == 0 ? counted : std::min(options.limit, counted);
  unsigned long long within_grace = 0;
  const auto spare = [&] { return std::max(within_grace, 1ULL) - 1; };
  Progress progress;
  QueryEvents events;
  events.on_wait = std::ref(progress);
  events.on_record = [&](const void* record) {
    const auto& row = *static_cast<const db_conn_server_log*>(record);
    // What came later was refused because of the block.
    if (row.action == zorv::kLoginFail && row.time <= last + kGrace) {
      ++ret.found;
      within_grace += is_limit_reached && row.time >= last ? 1 : 0;
      if (ret.rows.size() < shown + spare()) {
        ret.rows.push_back(row_of(row));
      }
    }
    return !forgets_failures(row) && ret.found < counted + spare();
  };
  const int status = run_query(zorv::kServerLog,
                               where(*zorv::kServerLog.find("username"), options.user, {}), events);
  progress.clear();
  leave_refused_out(spare(), counted, shown, ret);
  return report_status(status, "list the failed logins");
}

std::string state_text(const zorv::BlockVerdict& verdict) {
  switch (verdict.state) {
    case zorv::BlockState::off:
      return "not blocked, the policy is off";
    case zorv::BlockState::counting:
      return "not blocked";
    case zorv::BlockState::blocked:
      return fmt::format("blocked, {} left", duration_text(verdict.seconds_left));
    case zorv::BlockState::over:
      break;
  }
  return "not blocked any more";
}

std::string verdict_text(const WhyOptions& options, const db_privilege_user_block_data& user,
                         const zorv::PolicyReading& reading) {
  const bool is_read = reading.state == zorv::PolicyReading::State::read;
  const zorv::LoginPolicy& policy = reading.policy;
  std::string text = fmt::format(
      "{}: {}\nfailed logins  {}, the last at {}\n", display_text(options.user),
      is_read ? state_text(block_verdict(policy, user.limit, user.timestamp, std::time(nullptr)))
              : "unknown whether blocked",
      user.limit, time_text(user.timestamp & 0xffffffffU, options.zone()));
  if (is_read && policy.enabled) {
    text += fmt::format("policy         {} block for {}\n", policy.limit,
                        duration_text(zorv::block_seconds(policy.minutes)));
  }
  return text + "\n";
}

int why(const WhyOptions& options) {
  if (!is_user_name(options.user)) {
    return kUsage;
  }
  const bool is_told = options.output == kFormats.front()->name && !options.quiet;
  TableLook look;
  if (const int status =
          look_or_complain(zorv::kUserBlock, "list the failed logins", look,
                           where(*zorv::kUserBlock.find("username"), options.user, {}));
      status != kDone) {
    return status;
  }
  if (!look.id) {
    if (is_told) {
      print(fmt::format("{}: not blocked, no failed logins are counted\n",
                        display_text(options.user)));
    }
    return kDone;
  }
  db_privilege_user_block_data user{};
  std::memcpy(&user, look.row.data(), sizeof user);
  const zorv::PolicyReading policy = read_policy_or_complain();
  const bool is_limit_reached =
      policy.state == zorv::PolicyReading::State::read && user.limit >= policy.policy.limit;
  Failures failures;
  if (const int status = find_failures(options, user, is_limit_reached, failures);
      status != kDone) {
    return status;
  }
  std::string out = is_told ? verdict_text(options, user, policy) : "";
  const auto writer =
      find_format(options.output)->make_writer({kFields, output_style(options)}, &out);
  for (auto row = failures.rows.rbegin(); row != failures.rows.rend(); ++row) {
    writer->add(&*row);
  }
  writer->end_page();
  if (const int status = print_paged(out, options.no_pager); status != kDone) {
    return status;
  }
  if (failures.found > failures.rows.size() && !options.quiet) {
    complain("there are {} failed logins, the last {} are shown: -n 0 shows all", failures.found,
             failures.rows.size());
  }
  if (failures.found < static_cast<unsigned>(user.limit) && !options.quiet) {
    complain(
        "the server log has {} of the {} failed logins that were counted: the others are recycled, "
        "or were never recorded",
        failures.found, user.limit);
  }
  return kDone;
}

}  // namespace

void add_why_verb(CLI::App& noun, Run* run) {
  auto options = std::make_shared<WhyOptions>();
  CLI::App* verb =
      noun.add_subcommand("why", "Show the failed logins that were counted, the newest last");
  verb->add_option("user", options->user, "The user's name, exactly")
      ->required()
      ->type_name("USER");
  verb->add_option("-n,--limit", options->limit,
                   fmt::format("At most the last N ({} if not given, 0 for all)", kDefaultLimit))
      ->transform(decimal())
      ->type_name("N");
  add_output_options(*verb, options.get(), kFields);
  verb->footer(
      fields_sentence(kFields) +
      "\n\n"
      "They are found in the server log: this user's failed logins up to the last that was "
      "counted,\n"
      "back to a login that worked. Nothing is changed, as a check would.\n\n"
      "Examples:\n"
      "  zorvctl block why alice\n"
      "  zorvctl block why alice -n 0 -o csv --columns time,source");
  verb->callback([options, run] { *run = [options] { return why(*options); }; });
}

}  // namespace zorvctl
