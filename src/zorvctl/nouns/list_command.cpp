#include <unistd.h>

#include <CLI/CLI.hpp>

#include <memory>

#include "commands.h"
#include "daemon_answer.h"
#include "decimal_option.h"
#include "exit_status.h"
#include "follow_options.h"
#include "list_options.h"
#include "listed_table.h"
#include "output_options.h"
#include "pager.h"
#include "record_query.h"
#include "value_text.h"
#include "window_options.h"

namespace zorvctl {
namespace {

int list_records(const zorv::TableSchema& table, const ListOptions& options) {
  RecordQuery query;
  if (const int status = read_query(table, options, &query); status != kDone) {
    return status;
  }
  query.row_of = row_maker(table);
  const Format& format = *find_format(options.output);
  std::string out;
  const auto writer = format.make_writer({table.fields, output_style(options)}, &out);
  const bool to_terminal = isatty(STDOUT_FILENO) == 1;
  Pager pager(wants_pager(options.no_pager));
  bool printed = true;
  QueryEvents events;
  events.on_record = [&](const void* record) {
    writer->add(record);
    return !output_unwanted;
  };
  Progress progress;
  events.on_wait = progress;
  events.on_page_end = [&] {
    progress.clear();
    writer->end_page();
    printed = print(out) && printed;
    out.clear();
  };
  QueryResult result;
  const int status = run_query(table, query, events, &result);
  progress.clear();
  pager.wait();
  if (!flush_output() || !printed) {
    return kFailed;
  }
  if (result.more && to_terminal && !options.has_limit && !options.quiet) {
    complain("there are more {} than these {}: -n 0 shows all", table.plural, options.limit);
  }
  return report_status(status, fmt::format("list the {}", table.plural));
}

std::string list_footer(const zorv::TableSchema& table) {
  if (table.fields.empty()) {
    return "";
  }
  return fmt::format(
      "{0}\n"
      "They may also be called what json calls them; tables show the first ones, -o wide all.\n\n"
      "FILTER is a field, one of = != < <= > >= ~ !~, and a value. Several of one field with = or "
      "~\n"
      "are alternatives; all others must hold. Codes have names, times are understood as with\n"
      "--since, and time={5} is that whole day. A text may end with * for any rest (\\* is\n"
      "a star), an address be a network such as 192.0.2.0/24; ~ finds a regular expression.\n\n"
      "A time is {5}, \"{5} 04:10\", 04:10, today, yesterday, Mon, now, 2h, \"7d ago\"\n"
      "(that long ago), +2h or @1795234206; behind a date or time may stand a zone: UTC, +02:00,\n"
      "Europe/Berlin. A date alone means its 00:00. Only the newest 100000 {1} can be shown.\n\n"
      "Examples:\n"
      "  zorvctl {2} list -n 0 -S yesterday -o csv\n"
      "  zorvctl {2} list {3}=alice {3}=bob -j\n"
      "  zorvctl {2} list '{3}~^al' '{4}>=-1h' -o wide\n"
      "  zorvctl {2} list --sort {4} -r -n 10",
      fields_sentence(table.fields), table.plural, table.noun, "user", typed_name(*table.time),
      "2026-11-21");
}

}  // namespace

void add_list_verb(CLI::App& noun, const zorv::TableSchema& stored, Run* run) {
  const zorv::TableSchema& table = listed_table(stored);
  auto options = std::make_shared<ListOptions>();
  CLI::App* verb =
      noun.add_subcommand("list", fmt::format("Show {}, the newest first", table.plural));
  add_output_options(*verb, options.get(), table.fields);
  CLI::Option* limit = verb->add_option("-n,--limit", options->limit,
                                        fmt::format("At most N {} ({} if not given, 0 for all)",
                                                    table.plural, kDefaultLimit))
                           ->transform(decimal())
                           ->type_name("N");
  verb->add_option("--offset", options->offset, "Leave out the first N")
      ->transform(decimal())
      ->type_name("N");
  verb->add_flag("-r,--reverse", options->reverse, "The other way round");
  if (!table.fields.empty()) {
    verb->add_option("--sort", given(options->sort), "Order by this field, the smallest first")
        ->type_name("FIELD");
    verb->add_option("filters", options->filters, "Only those that are so: FIELD=VALUE, ...")
        ->type_name("FILTER");
  }
  if (table.time != nullptr) {
    add_window_options(*verb, &options->window);
  }
  verb->footer(list_footer(table));
  // Events have no ids; of blocks, rows change and stay.
  const bool is_block = &stored == &zorv::kUserBlock;
  const auto following = table.fields.empty() ? std::make_shared<FollowOptions>()
                                              : add_follow_options(*verb, !is_block);
  verb->callback([&table, options, limit, following, is_block, run] {
    options->has_limit = limit->count() != 0;
    *run = [&table, options, following, is_block] {
      if (!following->is_asked()) {
        return list_records(table, *options);
      }
      return is_block ? follow_blocks(table, *options, *following)
                      : follow_records(table, *options, *following);
    };
  });
}

}  // namespace zorvctl
