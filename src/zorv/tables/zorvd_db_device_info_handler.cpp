#include "zorvd_db_device_info_handler.h"

#include "zorvd_db_rows.h"

namespace store {
namespace {

LogModule log_module{"zorvd_db_device_info_handler"};

using Record = db_device_info_data;

constexpr const char* kKeptUuid =
    "CASE WHEN EXISTS (SELECT * FROM device_info)"
    " AND (SELECT dev_uuid FROM device_info WHERE mac = '%q') IS NOT NULL"
    " THEN (SELECT dev_uuid FROM device_info WHERE mac = '%q')"
    " ELSE '%q' END";

constexpr std::tuple columns{
    column("ip", "TEXT", "'%q'", &Record::ip),
    column("mac", "TEXT", "'%q'", &Record::mac),
    column("hoxsid", "TEXT", "'%q'", &Record::hoxsid),
    column("user_id", "TEXT", "'%q'", &Record::user_id),
    column("dev_name", "TEXT", "'%q'", &Record::dev_name),
    kept_column("dev_uuid", kKeptUuid, &Record::mac, &Record::dev_uuid),
    column("nic", "TEXT", "'%q'", &Record::nic),
    column("time", "INTEGER", "%llu", &Record::time),
};

constexpr TableTraits traits{"device_info", Storage::temporary, DeleteText::restored, "mac"};
Table table(log_module, traits);

}  // namespace

int create_device_info_db() {
  return create(table, column_texts(columns));
}

int insert_device_info(Record* record) {
  bound_texts(columns, *record);
  insert_row(table, insert_statement(table, columns, *record));
  return 0;
}

int select_device_info(const db_query_cond* cond, db_device_info_query** out) {
  return select_records(table, columns, *cond, out);
}

int select_device_info(const db_query_cond* cond, RowSpace& space, db_device_info_query& ret_head) {
  return select_records(table, columns, *cond, space, ret_head);
}

int delete_device_info(const db_delete_cond* cond) {
  return delete_row(table, static_cast<record_uint64>(cond->id));
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
