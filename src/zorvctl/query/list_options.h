// The options of "list" as they were typed, and as a query.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "color.h"
#include "record_query.h"
#include "statistics.h"
#include "time_argument.h"

namespace zorvctl {

inline constexpr unsigned long long kDefaultLimit = 50;

// How records are shown.
struct OutputOptions {
  std::string output;  // the format's name
  bool utc = false;
  bool quiet = false;
  bool readable = false;
  bool no_pager = false;
  ColorMode color = ColorMode::automatic;
  std::vector<std::string> columns;  // fields by name; none: those of the format

  Zone zone() const { return utc ? Zone::utc : Zone::local; }
};

struct WindowOptions {
  std::optional<std::string> since;
  std::optional<std::string> until;
};

struct ListOptions : OutputOptions {
  unsigned long long limit = kDefaultLimit;
  bool has_limit = false;  // was given
  unsigned long long offset = 0;
  bool reverse = false;
  std::optional<std::string> sort;
  std::vector<std::string> filters;
  WindowOptions window;
};

// "id, username, ...".
std::string field_names(const zorv::TableSchema& table);

// The time that was given with an option, none where it was not given. kDone, or kUsage after a
// complaint.
int read_time(const char* option, const std::optional<std::string>& text, Zone zone,
              std::optional<unsigned long long>* ret);

// Both return kDone, or kUsage after a complaint that names the wrong word.
int read_window(const WindowOptions& options, Zone zone, Window* ret_window);
int read_query(const zorv::TableSchema& table, const ListOptions& options, RecordQuery* ret_query);

}  // namespace zorvctl
