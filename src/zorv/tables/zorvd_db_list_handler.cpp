#include "zorvd_tables.h"

namespace store {
namespace {

Table& table = table_of(zorv::kServerList);

}  // namespace

int create_server_list_db() {
  return create(table);
}

int insert_server_list(db_server_list_data* record) {
  return insert_record(table, record);
}

int select_server_list(const db_query_cond* cond, db_server_list_query** out) {
  return select_query(table, *cond, out);
}

int delete_server_list(const db_delete_cond* cond) {
  return delete_row(table, cond->id);
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
