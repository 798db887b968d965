#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <ctime>
#include <memory>

#include "commands.h"
#include "daemon_answer.h"
#include "decimal_option.h"
#include "display_text.h"
#include "exit_status.h"
#include "output_options.h"
#include "statistics.h"
#include "value_text.h"
#include "window_options.h"

namespace zorvctl {
namespace {

using zorv::Field;
using zorv::FieldValue;
using zorv::Meaning;

// As the writers take it: what was counted under one key.
struct GroupRow {
  char name[kTextSize];
  int vpn_type;
  record_int64 hour;
  record_int64 sessions;
  record_uint64 uptime;
  record_int64 tx_total;
  record_int64 rx_total;
  record_int64 failures;
  record_uint64 last_seen;
};

constexpr auto with_key(const Field& key) {
  return std::array{
      key,
      zorv::field<&GroupRow::sessions>("sessions", "SESSIONS", Meaning::number, {2, 0}),
      zorv::field<&GroupRow::uptime>("uptime", "CONNECTED", Meaning::seconds, {3, 2}),
      zorv::field<&GroupRow::tx_total>("tx_total", "SENT", Meaning::bytes, {4, 3}),
      zorv::field<&GroupRow::rx_total>("rx_total", "RECEIVED", Meaning::bytes, {5, 4}),
      zorv::field<&GroupRow::failures>("failures", "FAILURES", Meaning::number, {6, 0}),
      zorv::field<&GroupRow::last_seen>("last_seen", "LAST-SEEN", Meaning::time, {7, 1})};
}

constexpr auto kByUser =
    with_key(zorv::field<&GroupRow::name>("username", "USER", Meaning::text, {1, 0}));
constexpr auto kBySource =
    with_key(zorv::field<&GroupRow::name>("source_ip", "SOURCE", Meaning::address, {1, 0}));
constexpr auto kByDay = with_key(zorv::field<&GroupRow::name>("day", "DAY", Meaning::text, {1, 0}));
constexpr auto kByHour =
    with_key(zorv::field<&GroupRow::hour>("hour", "HOUR", Meaning::number, {1, 0}));
constexpr auto kByProtocol = with_key(
    zorv::code<&GroupRow::vpn_type>("vpn_type", "PROTOCOL", zorv::kServerProtocols, {1, 0}));

struct Grouping {
  const char* name;  // as --by has it
  KeyOf key_of;
  std::span<const Field> fields;  // the key in front
  bool in_order_of_key;           // where no order is asked for; otherwise most sessions first
};

constexpr Grouping kGroupings[] = {
    {"user", user_of, kByUser, false},
    {"source", source_of, kBySource, false},
    {"day", day_of, kByDay, true},
    {"hour", hour_of, kByHour, true},
    {"protocol", protocol_of, kByProtocol, false},
};

struct StatsOptions : OutputOptions {
  std::string by = kGroupings[0].name;
  WindowOptions window;
  std::optional<std::string> sort;
  bool reverse = false;
  unsigned long long limit = 0;
};

std::string grouping_names() {
  std::string names;
  for (const Grouping& grouping : kGroupings) {
    names += (names.empty() ? "" : ", ") + std::string(grouping.name);
  }
  return names;
}

const Grouping* find_grouping(std::string_view name) {
  const auto* found = std::find_if(std::begin(kGroupings), std::end(kGroupings),
                                   [name](const Grouping& one) { return one.name == name; });
  return found != std::end(kGroupings) ? found : nullptr;
}

GroupRow row_of(const Grouping& grouping, const Groups::value_type& group) {
  GroupRow row{};
  const auto& [key, totals] = group;
  const auto* name = std::get_if<std::string>(&key);
  zorv::set(grouping.fields.front(), &row,
            name != nullptr ? FieldValue(*name) : FieldValue(std::get<record_int64>(key)));
  row.sessions = totals.sessions;
  row.uptime = totals.uptime;
  row.tx_total = totals.tx_total;
  row.rx_total = totals.rx_total;
  row.failures = totals.failures;
  row.last_seen = totals.last_seen;
  return row;
}

// kDone, or kUsage after a complaint. Null: by the key.
int read_order(const Grouping& grouping, const StatsOptions& options, const Field** ret_field,
               bool* ret_descending) {
  const Field* field = grouping.in_order_of_key ? nullptr : &grouping.fields[1];
  bool descending = field != nullptr;
  if (options.sort) {
    const Field* const found = field_called(grouping.fields, *options.sort);
    if (found == nullptr) {
      complain("'{}' is not a field of these; they have: {}", display_text(*options.sort),
               field_names(grouping.fields));
      return kUsage;
    }
    field = found != &grouping.fields.front() ? found : nullptr;
    descending = false;
  }
  *ret_field = field;
  *ret_descending = descending != options.reverse;
  return kDone;
}

// Groups in the order of an amount, or of their keys, which they have as they come.
std::vector<const Groups::value_type*> in_order(const Grouping& grouping, const Groups& groups,
                                                const Field* field, bool descending) {
  using Ranked = std::pair<FieldValue, const Groups::value_type*>;
  std::vector<Ranked> ranked;
  ranked.reserve(groups.size());
  for (const auto& group : groups) {
    FieldValue amount;
    if (field != nullptr) {
      const GroupRow row = row_of(grouping, group);
      amount = get(*field, &row);
    }
    ranked.emplace_back(amount, &group);
  }
  if (field != nullptr) {
    std::stable_sort(ranked.begin(), ranked.end(),
                     [descending](const auto& one, const auto& other) {
                       return descending ? other.first < one.first : one.first < other.first;
                     });
  } else if (descending) {
    std::reverse(ranked.begin(), ranked.end());
  }
  std::vector<const Groups::value_type*> ordered;
  ordered.reserve(ranked.size());
  for (const Ranked& one : ranked) {
    ordered.push_back(one.second);
  }
  return ordered;
}

int count_groups(const Grouping& grouping, const Window& window, Zone zone, Groups* ret_groups) {
  const auto now = static_cast<uint64_t>(std::time(nullptr));
  Groups groups;
  Progress progress;
  LogEvents events;
  events.on_session = [&](const Occasion& beginning, const Session& session) {
    groups[grouping.key_of(beginning, zone)].add(session, now);
  };
  events.on_failure = [&](const Occasion& failure) {
    groups[grouping.key_of(failure, zone)].add_failure(failure.time);
  };
  events.on_wait = std::ref(progress);
  const int status = read_log(window, events);
  progress.clear();
  *ret_groups = std::move(groups);
  return report_status(status, "count the connections");
}

int show_statistics(const StatsOptions& options) {
  const Grouping& grouping = *find_grouping(options.by);
  Window window;
  const Field* field = nullptr;
  bool descending = false;
  int status = read_window(options.window, options.zone(), &window);
  if (status == kDone) {
    status = read_order(grouping, options, &field, &descending);
  }
  Groups groups;
  if (status == kDone) {
    status = count_groups(grouping, window, options.zone(), &groups);
  }
  if (status != kDone) {
    return status;
  }
  std::string out;
  const auto writer =
      find_format(options.output)->make_writer({grouping.fields, output_style(options)}, &out);
  unsigned long long shown = 0;
  for (const auto* group : in_order(grouping, groups, field, descending)) {
    if (options.limit != 0 && shown == options.limit) {
      break;
    }
    const GroupRow row = row_of(grouping, *group);
    writer->add(&row);
    ++shown;
  }
  writer->end_page();
  return print_paged(out, options.no_pager);
}

}  // namespace

void add_stats_noun(CLI::App& program, Run* run) {
  auto options = std::make_shared<StatsOptions>();
  CLI::App* noun = program.add_subcommand(
      "stats", "Count sessions, time, bytes and failed logins: by whom, from where, when");
  noun->add_option("--by", options->by, grouping_names() + " (user if not given)")
      ->check([](const std::string& text) {
        return find_grouping(text) != nullptr
                   ? ""
                   : fmt::format("'{}' is none of {}", text, grouping_names());
      })
      ->type_name("WHAT");
  add_window_options(*noun, &options->window);
  noun->add_option("--sort", given(options->sort), "Order by this field, the smallest first")
      ->type_name("FIELD");
  noun->add_flag("-r,--reverse", options->reverse, "The other way round");
  noun->add_option("-n,--limit", options->limit, "At most N lines (0, all, if not given)")
      ->transform(decimal())
      ->type_name("N");
  add_output_options(*noun, options.get());
  noun->footer(
      "Fields: user, source, day, hour, protocol, sessions, connected, sent, received, failures,\n"
      "last-seen.\n"
      "Of the first five there is the one that --by asks for.\n"
      "Days and hours are in order, others with the most sessions first. A session counts once "
      "and\n"
      "whole, when it began; one that began before --since and was still there then counts at "
      "that\n"
      "time. One without a logout counts with what is known of it: no bytes, and its time up to "
      "now\n"
      "if it is still connected.\n\n"
      "Examples:\n"
      "  zorvctl stats -S 30d                     how much, by whom\n"
      "  zorvctl stats --by source --sort failures -r -n 10\n"
      "  zorvctl stats --by day -S 7d -o csv");
  noun->callback([options, run] { *run = [options] { return show_statistics(*options); }; });
}

}  // namespace zorvctl
