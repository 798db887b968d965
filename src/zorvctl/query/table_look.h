// A look at a table before or after a change: the daemon answers "done" whether its statement
// worked or not.
#pragma once

#include <optional>
#include <string>

#include "record_query.h"

namespace zorvctl {

struct TableLook {
  std::optional<record_int64> id;  // of the first row that the query meets
  std::string row;                 // that row's record, byte for byte
  unsigned long long total = 0;    // of the rows in the table that can be shown
};

// The status of run_query().
int look(const zorv::TableSchema& table, TableLook& ret, RecordQuery query = {});

// kDone, or the exit status after a complaint that names `what` was to be done.
int look_or_complain(const zorv::TableSchema& table, const std::string& what, TableLook& ret,
                     RecordQuery query = {});

// The row with that value in that field.
RecordQuery where(const zorv::Field& field, std::string text, zorv::FieldValue number);
// From the oldest row on.
RecordQuery upwards();

}  // namespace zorvctl
