// The logs that are shipped, and how far each is.
//
// An id is given once in the life of a database. A database that is made anew begins with 1 again,
// so a row is known by its generation and its id.
#pragma once

#include <string>

#include "zorv_schema.h"

namespace ship {

struct ShippedLog {
  const zorv::TableSchema* table;
  const char* name;  // of its table on the server
};

inline constexpr ShippedLog kLogs[] = {{&zorv::kServerLog, "server_log"},
                                       {&zorv::kClientLog, "client_log"}};

// Everything up to this row is on the server.
struct Place {
  long long generation = 1;
  record_int64 last_id = 0;  // 0: nothing of this generation
  std::string digest;        // of that row

  bool operator==(const Place&) const = default;
};

inline record_int64 id_of(const zorv::TableSchema& table, const void* record) {
  return std::get<record_int64>(zorv::get(table.fields[0], record));
}

}  // namespace ship
