// What the bus said about a call to the daemon, as an exit status and a sentence.
#pragma once

#include "call_time.h"
#include "record_query.h"

namespace zorvctl {

// kDone for 0; otherwise complains, naming `what` was asked ("list the connections"), and returns
// kUnreachable when no daemon answered, kFailed when it refused.
int report_status(int bus_status, const char* what);

// The same for the end of a query; kDone where the rows came.
int report_query_end(QueryEnd end, const char* what);

// Why a call through a client function that gives no status failed, which took `time`: asks the
// daemon for a method that it does not have, which a living daemon refuses at once. Never 0.
int probe_daemon(const CallTime& time = {});

// A sentence for a bus status: "the daemon is not running".
const char* status_text(int bus_status);
bool is_unreachable(int bus_status);

}  // namespace zorvctl
