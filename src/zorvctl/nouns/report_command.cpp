#include <sys/random.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <array>
#include <climits>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>

#include "commands.h"
#include "daemon_answer.h"
#include "exit_status.h"
#include "login_policy.h"
#include "output_options.h"
#include "record_query.h"
#include "report.h"
#include "rooted.h"
#include "window_options.h"

namespace zorvctl {
namespace {

constexpr const char* kChartLibrary = "/usr/share/javascript/chart.js/chart.min.js";

struct ReportOptions {
  WindowOptions window;
  bool utc = false;
};

// The library's text, or nothing, after a remark, where it is not there or would end the script
// that it is put into.
std::string chart_library() {
  std::ifstream file(os::rooted(kChartLibrary));
  std::string text{std::istreambuf_iterator<char>(file), {}};
  if (text.empty()) {
    complain("no charts, the page has tables only: {} (package libjs-chart.js) is not there",
             kChartLibrary);
  } else if (text.find("</script") != std::string::npos || text.find("<!--") != std::string::npos) {
    complain("no charts, the page has tables only: {} cannot stand in a page", kChartLibrary);
    text.clear();
  }
  return text;
}

// What nobody can know beforehand, so that no text of the page names it.
int make_nonce(std::string* ret_nonce) {
  std::array<unsigned char, 16> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    complain("cannot make the page: no random numbers");
    return kFailed;
  }
  *ret_nonce = fmt::format("{:02x}", fmt::join(bytes, ""));
  return kDone;
}

std::string host_name() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

int read_connections(Report* ret_report) {
  Progress progress;
  LogEvents events;
  events.on_session = [&](const Occasion& beginning, const Session& session) {
    ret_report->add(beginning, session);
  };
  events.on_failure = [&](const Occasion& failure) { ret_report->add_failure(failure); };
  events.on_wait = std::ref(progress);
  const int status = read_log(ret_report->window, events);
  progress.clear();
  return report_status(status, "count the connections");
}

int read_blocked(Report* ret_report) {
  zorv::LoginPolicy policy;
  if (!zorv::read_login_policy(policy)) {
    ret_report->blocked_remark = "Unknown: the login policy could not be read.";
    return kDone;
  }
  if (!policy.enabled) {
    ret_report->blocked_remark = "Nobody: the login policy is off.";
    return kDone;
  }
  RecordQuery latest_first;
  latest_first.order_by = zorv::kUserBlock.time;
  QueryEvents events;
  events.on_record = [&](const void* record) {
    const auto& user = *static_cast<const db_privilege_user_block_data*>(record);
    const auto verdict =
        block_verdict(policy, user.limit, user.timestamp, static_cast<int64_t>(ret_report->now));
    if (verdict.state == zorv::BlockState::blocked) {
      const auto name = std::get<std::string_view>(get(*zorv::kUserBlock.find("username"), record));
      ret_report->blocked.add(
          {std::string(name), user.limit, user.timestamp, verdict.seconds_left});
    }
    return true;
  };
  return report_status(run_query(zorv::kUserBlock, latest_first, events), "list the users");
}

int write_report(const ReportOptions& options) {
  if (isatty(STDOUT_FILENO) == 1) {
    complain("report: the page is for a browser, not for a terminal: zorvctl report >report.html");
    return kUsage;
  }
  Report report;
  report.zone = options.utc ? Zone::utc : Zone::local;
  report.now = static_cast<uint64_t>(std::time(nullptr));
  report.host = host_name();
  std::string nonce;
  int status = read_window(options.window, report.zone, &report.window);
  for (const auto step : {read_connections, read_blocked}) {
    status = status == kDone ? step(&report) : status;
  }
  if (status == kDone) {
    status = make_nonce(&nonce);
  }
  if (status != kDone) {
    return status;
  }
  return print(report_page(report, chart_library(), nonce)) && flush_output() ? kDone : kFailed;
}

}  // namespace

void add_report_noun(CLI::App& program, Run* run) {
  auto options = std::make_shared<ReportOptions>();
  CLI::App* noun = program.add_subcommand(
      "report", "Write a page for a browser: logins, failures, traffic, who is blocked");
  add_window_options(*noun, &options->window);
  noun->add_flag("--utc", options->utc, "Times, shown and given, are in UTC");
  noun->footer(
      "One file of HTML on standard output, which needs nothing else and asks nobody. Its charts "
      "are\n"
      "drawn by Chart.js, taken from the package libjs-chart.js; without it there are the tables\n"
      "alone. A session counts whole, when it began; what has no row of its own is summed up.\n\n"
      "Examples:\n"
      "  zorvctl report -S 30d >report.html\n"
      "  zorvctl report -S 2026-11-01 -U 2026-12-01 --utc >november.html");
  noun->callback([options, run] { *run = [options] { return write_report(*options); }; });
}

}  // namespace zorvctl
