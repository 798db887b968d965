#include "follow_options.h"

#include <CLI/CLI.hpp>

#include <algorithm>

#include "exit_status.h"
#include "output_options.h"

namespace zorvctl {

std::shared_ptr<FollowOptions> add_follow_options(CLI::App& verb, bool has_cursor) {
  auto following = std::make_shared<FollowOptions>();
  std::vector<CLI::Option*> options{
      verb.add_flag("-f,--follow", following->follow,
                    fmt::format("Oldest first, and then as they come; the last {} if not given",
                                kRowsBeforeFollowing))};
  if (has_cursor) {
    options.push_back(verb.add_option("--cursor", given(following->cursor),
                                      "Oldest first, from where the last run with this file ended")
                          ->type_name("FILE"));
  }
  for (const char* name : {"--offset", "--reverse", "--sort"}) {
    if (CLI::Option* other = verb.get_option_no_throw(name)) {
      std::for_each(options.begin(), options.end(),
                    [other](CLI::Option* option) { option->excludes(other); });
    }
  }
  return following;
}

bool is_wanted(const zorv::TableSchema& table, const RecordQuery& query, const void* row) {
  if (table.time != nullptr) {
    const auto time = std::get<record_uint64>(get(*table.time, row));
    if (time < query.since.value_or(time) || time > query.until.value_or(time)) {
      return false;
    }
  }
  return match(query.filters, row);
}

std::optional<unsigned long long> rows_before(const ListOptions& options,
                                              const FollowOptions& following) {
  if (options.has_limit) {
    // As elsewhere 0 is all; but who follows and asks for none means that.
    return options.limit == 0 && !following.follow ? std::nullopt : std::optional(options.limit);
  }
  return following.follow && !options.window.since ? std::optional(kRowsBeforeFollowing)
                                                   : std::nullopt;
}

void complain_lost(const zorv::TableSchema& table, unsigned long long rows) {
  // A row of a device that is seen again takes the place of its older one.
  if (table.unique == nullptr) {
    complain("{} of {} missing here: deleted, or more came than can be shown",
             rows == 1 ? "1 row" : fmt::format("{} rows", rows), table.noun);
  }
}

void complain_new_database(const zorv::TableSchema& table) {
  complain("the rows of {} begin anew: the table was made again", table.noun);
}

RecordStream::RecordStream(const Shown& shown, const std::string& format)
    : writer_(find_format(format)->make_writer(shown, &out_)) {}

void RecordStream::add(const void* record) {
  writer_->add(record);
  has_more_ = true;
}

bool RecordStream::flush() {
  if (has_more_) {
    writer_->end_page();
    has_more_ = false;
  }
  const bool printed = print(out_);
  out_.clear();
  return flush_output() && printed;
}

}  // namespace zorvctl
