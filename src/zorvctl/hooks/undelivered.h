// What becomes of a connection that a hook has told the daemon of.
#pragma once

#include <string>
#include <string_view>

#include "zorv_schema.h"

namespace zorvctl {

// Nothing where the call's status is 0. Otherwise the record waits in the spool, if it is one that
// the daemon may still take; what became of it is said of `what`, such as "the login", and `user`.
void keep_undelivered(int status, const zorv::TableSchema& table, const void* record,
                      std::string_view what, std::string_view user);

}  // namespace zorvctl
