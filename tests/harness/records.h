// Records as tests make them, and lists of them as the client functions give them.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "zorv_api_db.h"

namespace harness {

template <size_t Size>
void set_text(char (&field)[Size], const std::string& text) {
  memset(field, 0, Size);
  text.copy(field, Size);
}

template <class Record>
std::string bytes_of(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

template <class Query>
struct Listed {
  bool answered = false;  // or the result was left as it was
  record_uint64 total = 0;
  std::vector<typename Query::record_type> rows{};
};

inline db_query_cond newest_row() {
  return {0, 1, 0, 1, "", ""};
}

// Everything, unless a condition says something else.
template <class Query>
Listed<Query> list(int (*function)(db_query_cond*, Query**),
                   db_query_cond cond = {0, -1, 0, 0, "", ""}) {
  Query query{};
  query.count = 4711;
  Query* result = &query;
  Listed<Query> listed{function(&cond, &result) == 0 && query.count != 4711, query.total, {}};
  if (query.count != 4711) {
    listed.rows.assign(query.data, query.data + query.count);
    std::free(query.data);
  }
  return listed;
}

}  // namespace harness
