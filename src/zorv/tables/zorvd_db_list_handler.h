// The table server_list: VPN server sessions that other processes announce.
//
// Not history but a list of now: a temporary table, which lives in this process's connection and is
// empty after a restart. A statement that fails closes the connection and with it drops the table,
// and nothing makes it again until the daemon is restarted.
#pragma once

#include "zorv_records.h"
#include "zorvd_db_row_space.h"

namespace store {

int create_server_list_db();
// Ends the record's texts where they lack a terminator. Always 0.
int insert_server_list(db_server_list_data* record);
// Fills the caller's zeroed **out; its `data` is released with free. -1, with no data, for a bad
// order_by or when the rows do not fit into memory.
int select_server_list(const db_query_cond* cond, db_server_list_query** out);
// The same with the records in `space` and their numbers in ret_head.
int select_server_list(const db_query_cond* cond, RowSpace& space, db_server_list_query& ret_head);
int delete_server_list(const db_delete_cond* cond);
int clean_server_list();
int optimize_server_list_db();
int finish_server_list_db();

}  // namespace store
