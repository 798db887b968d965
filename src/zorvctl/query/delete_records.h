// Deleting by id, by a daemon that says "done" whatever its statement did: the table is asked
// before and afterwards.
#pragma once

#include <vector>

#include "record_kind.h"

namespace zorvctl {

// The exit status, after a complaint unless all of `ids` are gone and nothing else is. One that was
// not there is no failure, and only named, unless `quiet`.
int delete_records(const RecordKind& kind, const std::vector<long long>& ids, bool quiet);

}  // namespace zorvctl
