#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>
#include <utility>

#include "commands.h"
#include "daemon_answer.h"
#include "decimal_option.h"
#include "exit_status.h"
#include "list_options.h"
#include "record_query.h"

namespace zorvctl {
namespace {

// Broken between words, for a screen of 80 columns.
std::string wrapped(const std::string& text) {
  constexpr size_t kWidth = 80;
  std::string result;
  size_t line = 0;
  while (text.size() - line > kWidth) {
    const size_t blank = text.rfind(' ', line + kWidth);
    result += text.substr(line, blank - line) + "\n";
    line = blank + 1;
  }
  return result + text.substr(line);
}

CLI::Validator output_format() {
  return {[](std::string& text) -> std::string {
            const bool known = text == "table" || text == "json" || text == "csv";
            return known ? "" : fmt::format("'{}' is none of table, json, csv", text);
          },
          ""};
}

Style output_style(const ListOptions& options) {
  Style style;
  style.zone = options.zone();
  style.heading = !options.quiet;
  style.terminal = isatty(STDOUT_FILENO) == 1;
  winsize size{};
  if (style.terminal && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
    style.columns = size.ws_col;
  }
  return style;
}

std::unique_ptr<RecordWriter> make_writer(const RecordKind& kind, const ListOptions& options,
                                          const MakeComputed& make_computed, std::string* out) {
  if (options.json || options.output == "json") {
    return make_json_writer(kind.columns, out);
  }
  if (options.output == "csv") {
    return make_csv_writer(kind.columns, output_style(options), out);
  }
  return make_table_writer(kind.columns,
                           make_computed ? make_computed() : std::vector<ComputedColumn>{},
                           output_style(options), out);
}

// How far a long fetch has come, on the last line of a terminal.
class Progress {
 public:
  void show(unsigned long long read, unsigned long long total) {
    if (terminal_) {
      fmt::print(stderr, "\r{} of {} read", read, total);
      shown_ = true;
    }
  }
  void clear() {
    if (shown_) {
      fmt::print(stderr, "\r\x1b[K");
      shown_ = false;
    }
  }

 private:
  bool terminal_ = isatty(STDERR_FILENO) == 1;
  bool shown_ = false;
};

int list_records(const RecordKind& kind, const ListOptions& options,
                 const MakeComputed& make_computed) {
  RecordQuery query;
  if (const int status = read_query(kind, options, &query); status != kDone) {
    return status;
  }
  std::string out;
  const auto writer = make_writer(kind, options, make_computed, &out);
  Progress progress;
  bool printed = true;
  QueryEvents events;
  events.on_record = [&](const void* record) { writer->add(record); };
  events.on_wait = [&](unsigned long long read, unsigned long long total) {
    progress.show(read, total);
  };
  events.on_page_end = [&] {
    progress.clear();
    writer->end_page();
    printed = print(out) && printed;
    out.clear();
  };
  const QueryEnd end = run_query(kind, query, events);
  progress.clear();
  if (!flush_output() || !printed) {
    return kFailed;
  }
  const std::string what = fmt::format("list the {}", kind.plural);
  if (end == QueryEnd::more && !options.quiet) {
    complain("there are more {} than these {}: -n 0 shows all", kind.plural, options.limit);
  }
  return report_query_end(end, what.c_str());
}

std::string list_footer(const RecordKind& kind) {
  if (kind.columns.empty()) {
    return "";
  }
  return fmt::format(
      "{0}\n"
      "VALUE is what the field must equal; codes have names, times and durations are understood\n"
      "as with --since. A time is 2026-11-21, \"2026-11-21 04:10\", 04:10, today, yesterday, 2h, "
      "7d\n"
      "(that long ago) or @1795234206; a date alone means its 00:00.\n"
      "Only the newest 100000 {1} can be shown.\n\n"
      "Examples:\n"
      "  zorvctl {2} list -n 0 -S yesterday -o csv\n"
      "  zorvctl {2} list {3}=alice -j\n"
      "  zorvctl {2} list --sort {4} -r -n 10",
      wrapped("Fields: " + field_names(kind) + "."), kind.plural, kind.noun,
      find_column(kind.columns, "username") != nullptr ? "username" : "user_id", kind.time_column);
}

// Keeps an option's text, also an empty one, which is a wrong value and not a missing option.
CLI::callback_t given(std::optional<std::string>& target) {
  return [&target](const CLI::results_t& words) {
    target = words.front();
    return true;
  };
}

}  // namespace

void add_list_verb(CLI::App& noun, const RecordKind& kind, MakeComputed make_computed, Run* run) {
  auto options = std::make_shared<ListOptions>();
  CLI::App* verb =
      noun.add_subcommand("list", fmt::format("Show {}, the newest first", kind.plural));
  verb->add_option("-o,--output", options->output, "table, json (one object a line) or csv")
      ->check(output_format())
      ->type_name("FORMAT");
  verb->add_flag("-j,--json", options->json, "The same as -o json");
  verb->add_option(
          "-n,--limit", options->limit,
          fmt::format("At most N {} ({} if not given, 0 for all)", kind.plural, kDefaultLimit))
      ->transform(decimal())
      ->type_name("N");
  verb->add_option("--offset", options->offset, "Leave out the first N")
      ->transform(decimal())
      ->type_name("N");
  verb->add_flag("-r,--reverse", options->reverse, "The other way round");
  if (!kind.columns.empty()) {
    verb->add_option("--sort", given(options->sort), "Order by this field, the smallest first")
        ->type_name("FIELD");
    verb->add_option("filters", options->filters, "Only those where FIELD equals VALUE")
        ->type_name("FIELD=VALUE");
  }
  if (kind.time_column != nullptr) {
    verb->add_option("-S,--since", given(options->since), "Only from this time on")
        ->type_name("TIME");
    verb->add_option("-U,--until", given(options->until), "Only up to this time")
        ->type_name("TIME");
  }
  verb->add_flag("--utc", options->utc, "Times, shown and given, are in UTC");
  verb->add_flag("-q,--quiet", options->quiet, "No heading, and no word about further records");
  verb->footer(list_footer(kind));
  verb->callback([&kind, options, make_computed = std::move(make_computed), run] {
    *run = [&kind, options, make_computed] { return list_records(kind, *options, make_computed); };
  });
}

}  // namespace zorvctl
