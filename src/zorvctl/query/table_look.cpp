#include "table_look.h"

#include <utility>

#include "daemon_answer.h"

namespace zorvctl {

int look(const zorv::TableSchema& table, TableLook& ret, RecordQuery query) {
  TableLook seen;
  query.limit = 1;
  QueryEvents events;
  events.on_record = [&](const void* record) {
    seen.row.assign(static_cast<const char*>(record), table.record_size);
    if (!table.fields.empty()) {
      seen.id = std::get<record_int64>(get(table.fields[0], record));
    }
    return true;
  };
  QueryResult result;
  const int status = run_query(table, query, events, &result);
  if (status == 0) {
    seen.total = result.total;
    ret = std::move(seen);
  }
  return status;
}

int look_or_complain(const zorv::TableSchema& table, const std::string& what, TableLook& ret,
                     RecordQuery query) {
  return report_status(look(table, ret, std::move(query)), what);
}

RecordQuery where(const zorv::Field& field, std::string text, zorv::FieldValue number) {
  RecordQuery query;
  query.filters.push_back({&field, std::move(text), number});
  return query;
}

RecordQuery upwards() {
  RecordQuery query;
  query.descending = false;
  return query;
}

}  // namespace zorvctl
