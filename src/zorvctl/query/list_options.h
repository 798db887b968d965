// The options of "list" as they were typed, and as a query.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "record_query.h"
#include "time_argument.h"

namespace zorvctl {

inline constexpr unsigned long long kDefaultLimit = 50;

struct ListOptions {
  std::string output;
  unsigned long long limit = kDefaultLimit;
  unsigned long long offset = 0;
  bool reverse = false;
  std::optional<std::string> sort;
  std::vector<std::string> filters;
  std::optional<std::string> since;
  std::optional<std::string> until;
  bool utc = false;
  bool quiet = false;

  Zone zone() const { return utc ? Zone::utc : Zone::local; }
};

// "id, username, ...".
std::string field_names(const zorv::TableSchema& table);

// kDone, or kUsage after a complaint that names the wrong word.
int read_query(const zorv::TableSchema& table, const ListOptions& options, RecordQuery* ret_query);

}  // namespace zorvctl
