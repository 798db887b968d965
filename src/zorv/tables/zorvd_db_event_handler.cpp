#include <utility>

#include "zorvd_tables.h"

namespace store {
namespace {

Table& table = table_of(zorv::kEventLog);
LogModule& log_module = table.log;

struct Events {
  RowSpace& space;
  record_uint64 count = 0;
};

// An event has nothing to read, its id included.
int select_callback(void* user, int /*text_count*/, char** /*texts*/, char** /*names*/) {
  auto& events = *static_cast<Events*>(user);
  if (events.space.next(sizeof(db_event_data)) == nullptr) {
    ZORV_LOG(debug, "realloc fail");
    return 0;
  }
  ++events.count;
  return 0;
}

}  // namespace

int create_event_db() {
  return create(table);
}

int insert_event_data(db_event_data* /*record*/) {
  return 0;
}

int select_event_data(const db_query_cond& cond, RowSpace& space, RowCounts& ret_counts) {
  const Operation operation;
  const bool created = table.__db_field_index__ > 0;
  const bool known_column = cond.order_by >= 0 && cond.order_by < table.__db_field_index__;
  if (created && !known_column) {
    return -1;
  }
  const char* order_name =
      known_column ? table.__db_fields[static_cast<size_t>(cond.order_by)].c_str() : "id";
  SqlText query(sqlite3_mprintf("SELECT * FROM event_log ORDER BY %s %s LIMIT %lld OFFSET %lld;",
                                order_name, direction(cond.order_style), capped(cond.count),
                                cond.start));
  const std::string text = query != nullptr ? query.get() : "";
  std::string failure;
  Events events{space};
  ZORV_LOG(debug, "select_stmt");
  if (run(table, std::move(query), select_callback, &events, &failure) != SQLITE_OK) {
    ZORV_LOG(error, "Error in select statement %s [%s].", text.c_str(), failure.c_str());
  }
  ZORV_LOG(debug, "\n %llu records returned.", events.count);
  ret_counts = {events.count, events.count};
  return 0;
}

int select_event_data(const db_query_cond* cond, db_event_query** out) {
  RowArray events;
  RowCounts counts;
  if (select_event_data(*cond, events, counts) != 0) {
    return -1;
  }
  **out = {counts.count, counts.total, static_cast<db_event_data*>(events.release())};
  return 0;
}

int delete_event_data(int id) {
  return delete_row(table, id);
}

int finish_event_db() {
  return finish(table);
}

}  // namespace store
