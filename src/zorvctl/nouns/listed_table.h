// Tables as they are listed: behind what a record holds stand the fields that are worked out from
// it, in every format, and for filters.
#pragma once

#include <functional>

#include "login_policy.h"
#include "zorv_schema.h"

namespace zorvctl {

// The table with those fields behind its own; the table itself where it has none.
const zorv::TableSchema& listed_table(const zorv::TableSchema& table);

// For RecordQuery::row_of of a listed table: makes each record's row, valid until the next one is
// made. To be had when the list is about to be shown: it asks for the login policy and complains
// where that is not to be had or odd. Null where nothing is worked out.
using RowMaker = std::function<const void*(const void* record)>;
RowMaker row_maker(const zorv::TableSchema& listed);

// Of users, by a policy that the caller reads again from time to time.
RowMaker user_row_maker(const zorv::PolicyReading& policy);

}  // namespace zorvctl
