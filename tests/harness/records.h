// Records as tests make them, and lists of them as the client functions give them.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "zorv_api_db.h"
#include "zorv_schema.h"

namespace harness {

template <class Record>
std::string bytes_of(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

// Everything, unless something else is said.
inline db_query_cond page(record_int64 count = -1) {
  return {.start = 0, .count = count, .order_by = 0, .order_style = 0, .field = "", .value = ""};
}
inline db_query_cond filtered(const std::string& field, const std::string& value) {
  db_query_cond cond = page();
  zorv::copy_text(cond.field, field);
  zorv::copy_text(cond.value, value);
  return cond;
}

template <class Query>
struct Listed {
  bool answered = false;  // or the result was left as it was
  record_uint64 total = 0;
  std::vector<std::remove_pointer_t<decltype(Query::data)>> rows{};
};

template <class Query>
Listed<Query> list(int (*function)(db_query_cond*, Query**), db_query_cond cond = page()) {
  Query query{.count = 4711, .total = 4711, .data = nullptr};
  Query* result = &query;
  Listed<Query> listed{function(&cond, &result) == 0 && query.count != 4711, query.total, {}};
  if (listed.answered) {
    listed.rows.assign(query.data, query.data + query.count);
    std::free(query.data);
  }
  return listed;
}

}  // namespace harness
