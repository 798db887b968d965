// Deleting by a daemon that says "done" whatever its statement did: the table is asked before and
// afterwards.
#pragma once

#include <functional>
#include <vector>

#include "zorv_schema.h"

namespace zorvctl {

struct DeleteOptions {
  bool quiet = false;  // no word about ids that are not there
  bool force = false;  // also where the delete may take the whole table
};

// The exit status, after a complaint unless all of `ids` are gone and nothing else is. One that was
// not there is no failure, and only named.
int delete_records(const zorv::TableSchema& table, const std::vector<record_int64>& ids,
                   const DeleteOptions& options);

// Each takes about 20 ms, an open and a sync of the database's, and up to 8 KB of the daemon's log.
inline constexpr unsigned long long kMostDeletedOneByOne = 2000;

// Deletes every row that is there now, one by one; none where there are too many for that. The exit
// status, after a complaint where rows are left.
int clean_one_by_one(
    const zorv::TableSchema& table,
    const std::function<void(unsigned long long done, unsigned long long total)>& on_progress);

}  // namespace zorvctl
