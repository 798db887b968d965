// The SQL of a shipment, made of the logs' declarations: the names and types of columns, and the
// statements around a COPY.
#pragma once

#include <string>

#include "shipped_log.h"

namespace ship {

// "id, username, vpn_type, ..."
std::string column_names(const ShippedLog& log);
// "id bigint, username text, ...": as the server keeps them.
std::string column_definitions(const ShippedLog& log);

// The table that lines of COPY come into, one of the session's own. Times are seconds there.
std::string make_staging(const ShippedLog& log);
std::string copy_into_staging(const ShippedLog& log);
// `nas` is a literal.
std::string insert_from_staging(const ShippedLog& log, const std::string& nas,
                                long long generation);

// The server's time of an expression of seconds, to the second; one beyond the year 294276 is
// infinity.
std::string timestamp_of(const std::string& seconds);

}  // namespace ship
