// The rows that came into a table since it was read last, each of them once and the oldest first.
//
// They are found by their ids: a page of the newest few tells whether there are any, and as many
// pages as they need bring them, however many they are and whatever is added, deleted or recycled
// meanwhile.
#pragma once

#include <functional>

#include "cursor.h"
#include "record_query.h"

namespace zorvctl {

struct NewRowEvents {
  std::function<void(const void* record)> on_record;
  // So many rows that came were gone, or are too old to be shown, before the next record.
  std::function<void(unsigned long long rows)> on_lost;
  // The ids begin again: all rows are new.
  std::function<void()> on_new_database;
  // Behind each page's records, the place being behind them, too. False ends the reading.
  std::function<bool()> on_page_end;
};

class NewRows {
 public:
  NewRows(const zorv::TableSchema& table, Place place) : table_(table), place_(std::move(place)) {}

  // 0, or a status as of run_query(); what came before was handed on.
  int read(const NewRowEvents& events);

  const Place& place() const { return place_; }

 private:
  struct Page;
  int read_page(unsigned long long start, unsigned long long count, Page* ret) const;
  bool is_of_new_database(const Page& page, bool is_newest) const;
  void hand_on(const Page& page, const NewRowEvents& events);

  const zorv::TableSchema& table_;
  Place place_;
};

}  // namespace zorvctl
