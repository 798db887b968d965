#include "daemon_answer.h"
#include "exit_status.h"
#include "follow.h"
#include "follow_options.h"
#include "follow_wait.h"
#include "listed_table.h"
#include "new_rows.h"
#include "output_options.h"

namespace zorvctl {
namespace {

// In front of the rows that are to be shown at first, or behind the newest.
int find_place(const zorv::TableSchema& table, RecordQuery query,
               std::optional<unsigned long long> rows, Place* ret) {
  if (!rows && !query.since) {
    *ret = {};
    return 0;
  }
  Place place;
  RecordQuery newest;
  newest.limit = 1;
  QueryEvents events;
  events.on_record = [&](const void* record) {
    place.last_id = id_of(table, record);
    return true;
  };
  int status = run_query(table, newest, events);
  if (status == 0 && rows != 0ULL) {
    query.limit = rows.value_or(0);
    events.on_record = [&](const void* record) {
      place = {id_of(table, record) - 1, {}};
      return true;
    };
    status = run_query(table, query, events);
  }
  if (status == 0) {
    *ret = place;
  }
  return status;
}

// The rows that came, shown, with the cursor written behind them.
class Following {
 public:
  Following(const zorv::TableSchema& table, const ListOptions& options,
            const FollowOptions& following)
      : table_(table),
        following_(following),
        stream_({table.fields, output_style(options)}, options.output) {}

  int run(const RecordQuery& query, const Place& place) {
    NewRows rows(table_, place);
    NewRowEvents events;
    events.on_record = [&](const void* record) {
      const void* const row = query.row_of ? query.row_of(record) : record;
      if (is_wanted(table_, query, row)) {
        stream_.add(row);
      }
    };
    events.on_lost = [&](unsigned long long count) { complain_lost(table_, count); };
    events.on_new_database = [&] { complain_new_database(table_); };
    events.on_page_end = [&] {
      failed_ = !stream_.flush() || save(rows.place()) != kDone;
      return !failed_ && !is_told_to_end();
    };
    const auto read = [&]() -> std::optional<int> {
      const int status = rows.read(events);
      return failed_ ? std::nullopt : std::optional(status);
    };
    const std::string what = fmt::format("list the {}", table_.plural);
    // Whether the cursor can be written shows before anything is shown.
    if (save(place) != kDone) {
      return kFailed;
    }
    if (following_.follow) {
      return read_on(what, read);
    }
    const std::optional<int> status = read();
    return status ? report_status(*status, what) : kFailed;
  }

 private:
  int save(const Place& place) {
    if (!following_.cursor || saved_ == place) {
      return kDone;
    }
    saved_ = place;
    return write_cursor(*following_.cursor, table_, place);
  }

  const zorv::TableSchema& table_;
  const FollowOptions& following_;
  RecordStream stream_;
  std::optional<Place> saved_;
  bool failed_ = false;
};

}  // namespace

int follow_records(const zorv::TableSchema& table, const ListOptions& options,
                   const FollowOptions& following) {
  RecordQuery query;
  if (const int status = read_query(table, options, &query); status != kDone) {
    return status;
  }
  query.row_of = row_maker(table);
  Place place;
  bool resumes = false;
  if (following.cursor) {
    if (const int status = read_cursor(*following.cursor, table, &place, &resumes);
        status != kDone) {
      return status;
    }
  }
  if (!resumes) {
    const int status = find_place(table, query, rows_before(options, following), &place);
    if (status != 0) {
      return report_status(status, fmt::format("list the {}", table.plural));
    }
  }
  return Following(table, options, following).run(query, place);
}

}  // namespace zorvctl
