// Reads what is new in a log of the daemon's, a page at a time, the oldest first.
//
// The daemon gives rows by their position among its newest 100,000, and positions move: new rows
// push old ones out of reach, old ones are recycled, others deleted by hand. So each page is asked
// for from before the last shipped row on. Where that row is met, its digest tells whether the
// database is still the same; where a page begins behind it, an earlier one is asked for.
#pragma once

#include <optional>

#include "shipped_log.h"
#include "zorv_calls.h"

namespace ship {

inline constexpr int kTableNotRead = -1;  // beside the statuses of the bus

struct NewRows {
  zorv_api::Rows page;
  record_uint64 first = 0;   // of the page's rows that is new
  Place from;                // where they go on: the place asked for, or a generation's beginning
  record_uint64 lost = 0;    // ids between that and the first: recycled or deleted before
  record_uint64 behind = 0;  // rows that follow this page
  bool in_doubt = false;     // no rows, and the next one shows whether the database was made anew

  bool empty() const { return first >= page.count; }
};

class LogReader {
 public:
  LogReader(const zorv::TableSchema& table, record_int64 page_rows)
      : table_(table), page_rows_(page_rows) {}

  // 0, a status of the bus, or kTableNotRead.
  int read(const Place& place, NewRows* ret);
  // The id of the newest row, 0 where there is none.
  int newest(record_int64* ret_id) const;

 private:
  int query(record_int64 start, record_int64 count, bool newest_first,
            zorv_api::Rows* ret_page) const;
  int guess_start(record_int64 last_id);
  NewRows rows_behind(const Place& place, zorv_api::Rows page);
  bool is_other_database(const Place& place, const zorv_api::Rows& page);

  const zorv::TableSchema& table_;
  record_int64 page_rows_;
  std::optional<record_int64> start_;            // of the next page
  std::optional<record_int64> doubtful_newest_;  // an id below the place
};

}  // namespace ship
