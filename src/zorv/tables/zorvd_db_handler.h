// The table conn_server_log: connections made to the NAS's own VPN servers.
//
// Each insert sends one notification, after the row is stored; a vpn_type or an action that is none
// keeps the row and sends nothing.
#pragma once

#include "zorv_records.h"
#include "zorvd_db_row_space.h"

namespace store {

int create_conn_server_log_db();
// Ends the record's texts where they lack a terminator. Always 0.
int insert_conn_server_log(db_conn_server_log* record);
// Fills the caller's zeroed **out; its `data` is released with free. -1, with no data, for a bad
// order_by or when the rows do not fit into memory.
int select_conn_server_log(const db_query_cond* cond, db_conn_server_log_query** out);
// The same with the records in `space` and their numbers in ret_head.
int select_conn_server_log(const db_query_cond* cond, RowSpace& space,
                           db_conn_server_log_query& ret_head);
int delete_conn_server_log(const db_delete_cond* cond);
int clean_conn_server_log();
int optimize_server_log_db();
int finish_conn_server_log_db();

}  // namespace store
