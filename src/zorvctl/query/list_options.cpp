#include "list_options.h"

#include <algorithm>
#include <utility>

#include "display_text.h"
#include "exit_status.h"
#include "value_text.h"

namespace zorvctl {
namespace {

// The rows of one span of times are a window, for which not every row has to be read.
bool is_window(const zorv::TableSchema& table, const RecordQuery& query, const Filter& filter) {
  return filter.field == table.time && !filter.is_negated && filter.kind != Filter::Kind::equal &&
         (filter.is_limit ||
          std::count_if(query.filters.begin(), query.filters.end(), [&](const Filter& other) {
            return other.field == table.time && other.is_alternative();
          }) == 1);
}

void narrow_window(const Filter& filter, RecordQuery* query) {
  const unsigned long long first = std::get<record_uint64>(filter.number);
  const unsigned long long last = std::get<record_uint64>(filter.last);
  query->since = std::max(query->since.value_or(0), first);
  query->until = std::min(query->until.value_or(last), last);
}

void make_windows(const zorv::TableSchema& table, RecordQuery* query) {
  std::vector<Filter> others;
  for (const Filter& filter : query->filters) {
    if (is_window(table, *query, filter)) {
      narrow_window(filter, query);
    } else {
      others.push_back(filter);
    }
  }
  query->filters = std::move(others);
}

}  // namespace

std::string field_names(const zorv::TableSchema& table) {
  return field_names(table.fields);
}

int read_time(const char* option, const std::optional<std::string>& text, Zone zone,
              std::optional<unsigned long long>* ret) {
  if (!text) {
    return kDone;
  }
  unsigned long long seconds = 0;
  if (parse_time(*text, std::time(nullptr), zone, &seconds) != 0) {
    complain(
        "{}: '{}' is not a time such as 2026-11-21, \"2026-11-21 04:10\", yesterday, 2h or "
        "@1795234206",
        option, display_text(*text));
    return kUsage;
  }
  *ret = seconds;
  return kDone;
}

int read_window(const WindowOptions& options, Zone zone, Window* ret_window) {
  Window window;
  int status = read_time("--since", options.since, zone, &window.since);
  if (status == kDone) {
    status = read_time("--until", options.until, zone, &window.until);
  }
  if (status == kDone && window.since && window.until && *window.since > *window.until) {
    complain("--since is later than --until");
    return kUsage;
  }
  if (status == kDone) {
    *ret_window = window;
  }
  return status;
}

int read_query(const zorv::TableSchema& table, const ListOptions& options, RecordQuery* ret_query) {
  ret_query->limit = options.limit;
  ret_query->offset = options.offset;
  ret_query->descending = !options.reverse;
  if (options.sort) {
    ret_query->order_by = field_called(table.fields, *options.sort);
    ret_query->descending = options.reverse;
    if (ret_query->order_by == nullptr) {
      complain("'{}' is not a field of {}; it has: {}", display_text(*options.sort), table.noun,
               field_names(table));
      return kUsage;
    }
    if (ret_query->order_by->is_computed) {
      complain("--sort: '{}' is worked out row by row, the daemon cannot order by it",
               *options.sort);
      return kUsage;
    }
  }
  const std::time_t now = std::time(nullptr);
  for (const std::string& word : options.filters) {
    std::string error;
    Filter filter{};
    if (read_filter(table.fields, table.noun, word, now, options.zone(), &filter, &error) != 0) {
      complain("{}", error);
      return kUsage;
    }
    ret_query->filters.push_back(std::move(filter));
  }
  Window window;
  const int status = read_window(options.window, options.zone(), &window);
  if (status == kDone) {
    ret_query->since = window.since;
    ret_query->until = window.until;
    make_windows(table, ret_query);
  }
  return status;
}

}  // namespace zorvctl
