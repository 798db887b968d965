// The tables of the record store: the named operations of each, as calls of the engine with the
// table's declaration, and what a table alone does.
//
// What holds of every table:
//   create    at the daemon's start; 0, or -1 when the table could not be made
//   insert    ends the record's texts where they lack a terminator; always 0
//   select    fills the caller's zeroed **out, whose `data` is released with free; -1, with no
//   data, for
//             a bad order_by or when the rows do not fit into memory
//   delete, clean, optimize, finish   always 0
// A statement that fails is logged and closes the table's connection; the results do not tell.
//
// A table more needs nothing here unless it does something of its own: create(), insert_record(),
// select_rows() and the others of the engine take table_of() any declaration.
#pragma once

#include "zorvd_db_rows.h"

namespace store {

// All tables that the daemon opens and finishes, in their order. A lock that another process holds
// delays the start by this much, for all of them together.
inline constexpr std::chrono::milliseconds kStartPatience{800};
void open_tables();
void close_tables();

// conn_server_log: connections made to the NAS's own VPN servers. Each insert sends one
// notification, after the row is stored; a vpn_type or an action that is none keeps the row and
// sends nothing.
int create_conn_server_log_db();
int insert_conn_server_log(db_conn_server_log* record);
int select_conn_server_log(const db_query_cond* cond, db_conn_server_log_query** out);
int delete_conn_server_log(const db_delete_cond* cond);
int clean_conn_server_log();
int optimize_server_log_db();
int finish_conn_server_log_db();

// conn_client_log: connections the NAS made as a client; notifies as the server log does. Its
// vpn_type codes are not those of the server log.
int create_conn_client_log_db();
int insert_conn_client_log(db_conn_client_log_data* record);
int select_conn_client_log(const db_query_cond* cond, db_conn_client_log_query** out);
int delete_conn_client_log(const db_delete_cond* cond);
int clean_conn_client_log();
int optimize_client_log_db();
int finish_conn_client_log_db();

// event_log: a placeholder, so that the event methods have a store to call. The daemon never
// creates it: an insert does nothing, and a select goes to SQLite without a connection, which
// refuses it, so a query is answered with no rows.
int create_event_db();
int insert_event_data(db_event_data* record);
int select_event_data(const db_query_cond* cond, db_event_query** out);
int select_event_data(const db_query_cond& cond, RowSpace& space, RowCounts& ret_counts);
int delete_event_data(int id);
int finish_event_db();

// server_list: VPN server sessions that other processes announce. Not history but a list of now: a
// temporary table, empty after a restart and lost with its connection.
int create_server_list_db();
int insert_server_list(db_server_list_data* record);
int select_server_list(const db_query_cond* cond, db_server_list_query** out);
int delete_server_list(const db_delete_cond* cond);
int clean_server_list();
int optimize_server_list_db();
int finish_server_list_db();

// device_info: mobile client devices, in a temporary table. A new report of a known MAC address
// (compared as it stands, letter case included) replaces the row under a new id and keeps the
// device UUID of the first report.
int create_device_info_db();
int insert_device_info(db_device_info_data* record);
int select_device_info(const db_query_cond* cond, db_device_info_query** out);
int delete_device_info(const db_delete_cond* cond);
int clean_device_info();
int optimize_device_info_db();
int finish_device_info_db();

// privilege_user_block: failed logins counted per user, and who is blocked for them.
//
// The policy (on or off, how many failures, for how many minutes) is not kept here: every operation
// that needs it asks for it afresh. A user is blocked from the failure that reaches the limit until
// a check finds the block time over; each failure counts on and restarts the clock. One row a user,
// names compared byte by byte; a name longer than 1024 bytes never meets its own row again, since
// rows come back cut to that length. A null user name is the empty one.
int create_privilege_user_block_db();
// Counts one failed login; notifies on the failure that reaches the limit, and on no later one.
// Always 0.
int insert_privilege_user_block(const char* username);
// 1 = blocked, 0 = not blocked, -1 = the policy could not be read. While the policy is off every
// row is dropped; a block that has run out is lifted here.
int check_privilege_user_block(const char* username);
// Lifts a block; notifies only when the count is exactly the limit. Always 0.
int delete_privilege_user_block(const char* username);
// Lifts every block, notifying for those whose count is exactly the limit. Always 0.
int clean_privilege_user_block();
int select_privilege_user_block(const db_query_cond* cond, db_privilege_user_block_query** out);
int optimize_privilege_user_block_db();
int finish_privilege_user_block_db();

}  // namespace store
