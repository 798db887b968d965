#include "zorvd_db_list_handler.h"

#include "zorvd_db_rows.h"

namespace store {
namespace {

LogModule log_module{"zorvd_db_list_handler"};

using Record = db_server_list_data;

constexpr std::tuple columns{
    column("uuid", "TEXT", "'%q'", &Record::uuid),
    column("username", "TEXT", "'%q'", &Record::username),
    column("sid", "TEXT", "'%q'", &Record::sid),
    column("device_name", "TEXT", "'%q'", &Record::device_name),
    column("expire_time", "INTEGER", "%llu", &Record::expire_time),
    column("time", "INTEGER", "%llu", &Record::time),
};

constexpr TableTraits traits{"server_list", Storage::temporary, DeleteText::accumulates};
Table table(log_module, traits);

}  // namespace

int create_server_list_db() {
  return create(table, column_texts(columns));
}

int insert_server_list(Record* record) {
  bound_texts(columns, *record);
  insert_row(table, insert_statement(table, columns, *record));
  return 0;
}

int select_server_list(const db_query_cond* cond, db_server_list_query** out) {
  return select_records(table, columns, *cond, out);
}

int select_server_list(const db_query_cond* cond, RowSpace& space, db_server_list_query& ret_head) {
  return select_records(table, columns, *cond, space, ret_head);
}

int delete_server_list(const db_delete_cond* cond) {
  return delete_row(table, static_cast<record_uint64>(cond->id));
}

int clean_server_list() {
  return clean(table);
}

int optimize_server_list_db() {
  return optimize(table);
}

int finish_server_list_db() {
  return finish(table);
}

}  // namespace store
