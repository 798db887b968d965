// A look at a table before or after a change: the daemon answers "done" whether its statement
// worked or not.
#pragma once

#include <optional>
#include <string>

#include "record_query.h"

namespace zorvctl {

struct TableLook {
  QueryEnd end = QueryEnd::unanswered;
  std::optional<long long> id;   // of the first row that the query meets
  std::string row;               // that row's record, byte for byte
  unsigned long long total = 0;  // of the rows in the table that can be shown
};

TableLook look(const RecordKind& kind, RecordQuery query = {});

// The row with that value in that column.
RecordQuery where(const Column& column, std::string text, Value number);

}  // namespace zorvctl
