// Every row of the daemon's tables that the pages of a file hold, whatever state the file is in.
//
// First come the rows that the tables' trees lead to, as SQLite finds them; then those of pages
// that hold rows and that no tree leads to, as a cut leaves them; last, of pages whose list of rows
// does not hold together, whatever bytes make a whole row. There the tables are told apart by the
// number and the types of their columns. An id may come again: the first row that bears it is the
// best.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

#include "raw_row.h"
#include "zorv_schema.h"

namespace check {

// In the database file, and so for the daemon to lose.
constexpr bool is_kept(const zorv::TableSchema& table) {
  return table.opened && table.storage == zorv::Storage::persistent;
}

// Both give 0 to go on, anything else to end the reading with that.
struct RowReading {
  std::function<int(const zorv::TableSchema&, const RawRow&)> take;
  std::function<int(uint32_t page, uint32_t pages)> tick;  // before each page that is read
};

// The highest id that a table ever gave, where the file tells.
using HighestIds = std::map<const zorv::TableSchema*, int64_t>;

int read_rows(const Pages& pages, const RowReading& reading, HighestIds& ret_highest);

}  // namespace check
