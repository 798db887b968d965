#include <CLI/CLI.hpp>

#include <algorithm>
#include <ctime>
#include <memory>

#include "commands.h"
#include "daemon_answer.h"
#include "decimal_option.h"
#include "exit_status.h"
#include "follow.h"
#include "follow_options.h"
#include "follow_wait.h"
#include "new_rows.h"
#include "output_options.h"
#include "record_query.h"
#include "sessions.h"
#include "window_options.h"

namespace zorvctl {
namespace {

using zorv::Meaning;

// As the writers take it.
struct SessionRow {
  char username[kTextSize];
  int vpn_type;
  char source_ip[kTextSize];
  char vpn_ip[kTextSize];
  record_uint64 start;
  record_uint64 end;
  int state;
  record_uint64 uptime;
  record_int64 tx_total;
  record_int64 rx_total;
};

constexpr zorv::CodeWord kStates[] = {{kConnected, "still connected"},
                                      {kEnded, "ended"},
                                      {kBrokenOff, "broken off"},
                                      {kNoLogin, "login not recorded"}};

// A logout tells when a session ended and what it carried; nobody tells of one that is broken off.
bool is_logged_out(const void* row) {
  const int state = static_cast<const SessionRow*>(row)->state;
  return state == kEnded || state == kNoLogin;
}
bool has_duration(const void* row) {
  return static_cast<const SessionRow*>(row)->state != kBrokenOff;
}

constexpr zorv::Field kFields[] = {
    zorv::field<&SessionRow::username>("username", "USER", Meaning::text, {1, 0}),
    zorv::code<&SessionRow::vpn_type>("vpn_type", "PROTOCOL", zorv::kServerProtocols, {2, 5}),
    zorv::field<&SessionRow::source_ip>("source_ip", "SOURCE", Meaning::address, {3, 2}),
    zorv::field<&SessionRow::vpn_ip>("vpn_ip", "VPN-IP", Meaning::addresses, {4, 4}),
    zorv::field<&SessionRow::start>("start", "START", Meaning::time, {5, 0}),
    zorv::computed(zorv::field<&SessionRow::uptime>("uptime", "DURATION", Meaning::seconds, {6, 6}),
                   has_duration),
    zorv::computed(zorv::field<&SessionRow::tx_total>("tx_total", "SENT", Meaning::bytes, {7, 7}),
                   is_logged_out),
    zorv::computed(
        zorv::field<&SessionRow::rx_total>("rx_total", "RECEIVED", Meaning::bytes, {8, 8}),
        is_logged_out),
    zorv::computed(zorv::field<&SessionRow::end>("end", "END", Meaning::time, {9, 3}),
                   is_logged_out),
    zorv::code<&SessionRow::state>("state", "STATE", kStates, {10, 0}),
};

SessionRow row_of(const Session& session, uint64_t now) {
  SessionRow row{};
  zorv::copy_text(row.username, session.username);
  zorv::copy_text(row.source_ip, session.source_ip);
  zorv::copy_text(row.vpn_ip, session.vpn_ip);
  row.vpn_type = session.vpn_type;
  row.start = session.start;
  row.end = session.end;
  row.state = session.state;
  row.uptime = session.duration(now);
  row.tx_total = session.tx_total;
  row.rx_total = session.rx_total;
  return row;
}

struct SessionOptions : OutputOptions {
  unsigned long long limit = 0;
  bool open = false;
  WindowOptions window;
  std::optional<std::string> at;
  std::optional<std::string> user;
  bool follow = false;
  bool limit_given = false;

  bool wants(const Session& session) const {
    return (!user || session.username == *user) && (!open || session.state == kConnected);
  }
};

int read_sessions(SessionJoiner* ret_joiner) {
  RecordQuery all;
  all.descending = false;
  Progress progress;
  QueryEvents events;
  events.on_record = [&](const void* record) {
    ret_joiner->add(*static_cast<const db_conn_server_log*>(record));
    return true;
  };
  events.on_wait = std::ref(progress);
  const int status = run_query(zorv::kServerLog, all, events);
  progress.clear();
  return report_status(status, "list the sessions");
}

int show_sessions(const SessionOptions& options) {
  std::optional<unsigned long long> at;
  if (const int status = read_time("--at", options.at, options.zone(), &at); status != kDone) {
    return status;
  }
  Window window;
  if (const int status = read_window(options.window, options.zone(), &window); status != kDone) {
    return status;
  }
  SessionJoiner joiner;
  if (const int status = read_sessions(&joiner); status != kDone) {
    return status;
  }
  std::string out;
  const auto writer =
      find_format(options.output)->make_writer({kFields, output_style(options)}, &out);
  const auto now = static_cast<uint64_t>(std::time(nullptr));
  unsigned long long shown = 0;
  for (const Session& session : joiner.newest_first()) {
    if (options.wants(session) && window.meets(session) && (!at || session.covers(*at)) &&
        (options.limit == 0 || shown < options.limit)) {
      const SessionRow row = row_of(session, now);
      writer->add(&row);
      ++shown;
    }
  }
  writer->end_page();
  return print_paged(out, options.no_pager);
}

// The last sessions, and then each that begins or ends.
int follow_sessions(const SessionOptions& options) {
  RecordStream stream({kFields, output_style(options)}, options.output);
  SessionJoiner joiner;
  const auto show_changed = [&](std::optional<size_t> at_most) {
    auto sessions = joiner.take_changed();
    std::erase_if(sessions, [&](const Session& session) { return !options.wants(session); });
    const auto now = static_cast<uint64_t>(std::time(nullptr));
    const size_t shown = std::min(sessions.size(), at_most.value_or(sessions.size()));
    for (size_t index = sessions.size() - shown; index < sessions.size(); ++index) {
      const SessionRow row = row_of(sessions[index], now);
      stream.add(&row);
    }
  };
  bool is_first = true;
  NewRows rows(zorv::kServerLog, {});
  NewRowEvents events;
  events.on_record = [&](const void* record) {
    joiner.add(*static_cast<const db_conn_server_log*>(record));
    if (!is_first) {
      show_changed({});
    }
  };
  events.on_lost = [](unsigned long long count) { complain_lost(zorv::kServerLog, count); };
  events.on_new_database = [&] {
    complain_new_database(zorv::kServerLog);
    joiner = {};
  };
  events.on_page_end = [&] { return !is_told_to_end(); };
  return read_on("list the sessions", [&]() -> std::optional<int> {
    const int status = rows.read(events);
    if (status == 0 && is_first) {
      is_first = false;
      show_changed(options.limit_given
                       ? std::optional(static_cast<size_t>(
                             std::min<unsigned long long>(options.limit, kMostRowsShown)))
                   : options.open ? std::nullopt
                                  : std::optional<size_t>(kRowsBeforeFollowing));
    }
    return stream.flush() ? std::optional(status) : std::nullopt;
  });
}

}  // namespace

void add_sessions_noun(CLI::App& program, Run* run) {
  auto options = std::make_shared<SessionOptions>();
  CLI::App* noun = program.add_subcommand(
      "sessions", "Show who is connected and who was: logins and logouts joined");
  noun->add_option("user", given(options->user), "Only this user's")->type_name("USER");
  noun->add_flag("--open", options->open, "Only those that are still connected");
  CLI::Option* at =
      noun->add_option("--at", given(options->at), "Only those that were connected then")
          ->type_name("TIME");
  add_window_options(*noun, &options->window);
  noun->add_flag("-f,--follow", options->follow,
                 "The last ones, oldest first, and then each that begins or ends")
      ->excludes(at, noun->get_option("--since"), noun->get_option("--until"));
  const CLI::Option* limit =
      noun->add_option("-n,--limit", options->limit, "At most N sessions (0, all, if not given)")
          ->transform(decimal())
          ->type_name("N");
  add_output_options(*noun, options.get(), kFields);
  noun->footer(
      fields_sentence(kFields) +
      "\n\n"
      "A session without a logout is still connected, or broken off where a later login has its\n"
      "address in the tunnel or its interface. One whose login is not in the log any more, or\n"
      "never was, shows when it must have begun. What only a logout tells, the end and the\n"
      "bytes, has no value without one, nor has the duration of one that is broken off.\n\n"
      "Examples:\n"
      "  zorvctl sessions --open\n"
      "  zorvctl sessions --at \"2026-11-21 04:10\"\n"
      "  zorvctl sessions alice -j");
  noun->callback([options, limit, run] {
    options->limit_given = limit->count() != 0;
    *run = [options] {
      return options->follow ? follow_sessions(*options) : show_sessions(*options);
    };
  });
}

}  // namespace zorvctl
