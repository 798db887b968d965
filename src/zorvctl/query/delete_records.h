// Deleting by id, by a daemon that says "done" whatever its statement did: the table is asked
// before and afterwards.
#pragma once

#include <vector>

#include "zorv_schema.h"

namespace zorvctl {

// The exit status, after a complaint unless all of `ids` are gone and nothing else is. One that was
// not there is no failure, and only named, unless `quiet`.
int delete_records(const zorv::TableSchema& table, const std::vector<record_int64>& ids,
                   bool quiet);

}  // namespace zorvctl
