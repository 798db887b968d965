// The schema of the server's database, as a text for psql.
#pragma once

#include <string>

namespace ship {

// Raised by whatever a shipper of another version could not work with.
inline constexpr int kSchemaVersion = 1;

// `shards` 0: tables partitioned by month. Otherwise tables that are spread by the NAS's name over
// so many foreign servers, zorv_shard_0 and so on, each of which has the schema of 0.
std::string schema_text(unsigned shards);

}  // namespace ship
