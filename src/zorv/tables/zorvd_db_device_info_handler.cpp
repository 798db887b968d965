#include "zorvd_tables.h"

namespace store {
namespace {

Table& table = table_of(zorv::kDeviceInfo);

}  // namespace

int create_device_info_db() {
  return create(table);
}

int insert_device_info(db_device_info_data* record) {
  return insert_record(table, record);
}

int select_device_info(const db_query_cond* cond, db_device_info_query** out) {
  return select_query(table, *cond, out);
}

int delete_device_info(const db_delete_cond* cond) {
  return delete_row(table, cond->id);
}

int clean_device_info() {
  return clean(table);
}

int optimize_device_info_db() {
  return optimize(table);
}

int finish_device_info_db() {
  return finish(table);
}

}  // namespace store
