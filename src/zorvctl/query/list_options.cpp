#include "list_options.h"

#include <utility>

#include "display_text.h"
#include "exit_status.h"
#include "value_text.h"

namespace zorvctl {
namespace {

const zorv::Field* field_or_complain(const zorv::TableSchema& table, std::string_view name) {
  const zorv::Field* field = table.find(name);
  if (field == nullptr) {
    complain("'{}' is not a field of {}; it has: {}", display_text(name), table.noun,
             field_names(table));
  }
  return field;
}

int read_filter(const zorv::TableSchema& table, const std::string& word, Zone zone,
                RecordQuery* query) {
  const size_t equals = word.find('=');
  if (equals == std::string::npos) {
    complain("'{}' is not FIELD=VALUE", display_text(word));
    return kUsage;
  }
  const zorv::Field* field = field_or_complain(table, std::string_view(word).substr(0, equals));
  if (field == nullptr) {
    return kUsage;
  }
  Filter filter{field, word.substr(equals + 1), {}};
  FieldValue value;
  std::string error;
  if (read_value(*field, filter.text, std::time(nullptr), zone, &value, &error) != 0) {
    complain("{}", error);
    return kUsage;
  }
  if (const auto* text = std::get_if<std::string_view>(&value)) {
    filter.text = std::string(*text);
  } else {
    filter.number = value;
  }
  query->filters.push_back(std::move(filter));
  return kDone;
}

}  // namespace

std::string field_names(const zorv::TableSchema& table) {
  std::string names;
  for (const zorv::Field& field : table.fields) {
    names += (names.empty() ? "" : ", ") + std::string(field.name);
  }
  return names;
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

int read_query(const zorv::TableSchema& table, const ListOptions& options, RecordQuery* ret_query) {
  ret_query->limit = options.limit;
  ret_query->offset = options.offset;
  ret_query->descending = !options.reverse;
  if (options.sort) {
    ret_query->order_by = field_or_complain(table, *options.sort);
    ret_query->descending = options.reverse;
    if (ret_query->order_by == nullptr) {
      return kUsage;
    }
    if (ret_query->order_by->is_computed) {
      complain("--sort: '{}' is worked out row by row, the daemon cannot order by it",
               *options.sort);
      return kUsage;
    }
  }
  for (const std::string& word : options.filters) {
    if (const int status = read_filter(table, word, options.zone(), ret_query); status != kDone) {
      return status;
    }
  }
  const int status = read_time("--since", options.since, options.zone(), &ret_query->since);
  return status != kDone ? status
                         : read_time("--until", options.until, options.zone(), &ret_query->until);
}

}  // namespace zorvctl
