// The table device_info: mobile client devices, known by their MAC address.
//
// A temporary table like the server list. A new report of a known MAC address (compared as it
// stands, letter case included) replaces the row under a new id and keeps the device UUID of the
// first report.
#pragma once

#include "zorv_records.h"
#include "zorvd_db_row_space.h"

namespace store {

int create_device_info_db();
// Ends the record's texts where they lack a terminator. Always 0.
int insert_device_info(db_device_info_data* record);
// Fills the caller's zeroed **out; its `data` is released with free. -1, with no data, for a bad
// order_by or when the rows do not fit into memory.
int select_device_info(const db_query_cond* cond, db_device_info_query** out);
// The same with the records in `space` and their numbers in ret_head.
int select_device_info(const db_query_cond* cond, RowSpace& space, db_device_info_query& ret_head);
int delete_device_info(const db_delete_cond* cond);
int clean_device_info();
int optimize_device_info_db();
int finish_device_info_db();

}  // namespace store
