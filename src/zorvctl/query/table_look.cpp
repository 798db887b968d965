#include "table_look.h"

#include <utility>

namespace zorvctl {

TableLook look(const RecordKind& kind, RecordQuery query) {
  TableLook seen;
  query.limit = 1;
  QueryEvents events;
  events.on_record = [&](const void* record) {
    seen.row.assign(static_cast<const char*>(record), kind.record_size);
    if (!kind.columns.empty()) {
      seen.id = std::get<long long>(kind.columns[0].get(record));
    }
  };
  events.on_page_end = [] {};
  events.on_wait = [](unsigned long long, unsigned long long) {};
  seen.end = run_query(kind, query, events, &seen.total);
  return seen;
}

RecordQuery where(const Column& column, std::string text, Value number) {
  RecordQuery query;
  query.filters.push_back({&column, std::move(text), number});
  return query;
}

}  // namespace zorvctl
