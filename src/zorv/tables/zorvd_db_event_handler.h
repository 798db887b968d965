// The table event_log: a placeholder, so that the event methods have a store to call.
//
// An event has no fields. The daemon never creates this table: an insert does nothing, and a select
// goes to SQLite without a connection, which refuses it, so a query is answered with no rows.
#pragma once

#include "zorv_records.h"
#include "zorvd_db_row_space.h"

namespace store {

int create_event_db();
int insert_event_data(db_event_data* record);
// Fills the caller's zeroed **out; its `data` is released with free. -1 for a bad order_by.
int select_event_data(const db_query_cond* cond, db_event_query** out);
// The same with the records in `space` and their numbers in ret_head.
int select_event_data(const db_query_cond* cond, RowSpace& space, db_event_query& ret_head);
int delete_event_data(int id);
int finish_event_db();

}  // namespace store
