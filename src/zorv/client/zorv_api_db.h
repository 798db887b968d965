// The client side of the daemon's record methods: one function a method.
//
// Each call makes its own bus buffer, calls the daemon on "@/var/run/zorvd.sock" with a deadline of
// 5 s, and frees the buffer; nothing is kept between calls, so the functions may be called from any
// thread at once. A buffer that cannot be made ends the process with an assertion failure.
//
// Status: what the bus gave, KX_SUCCESS (0) or another kx_status of kxbus.h, unchanged.
//
// The list functions return 0 whatever happened. The caller provides **result and owns it; a call
// that succeeded fills it and allocates its `data` with calloc, which the caller releases with
// free; a call that failed leaves it as it was, so fill it beforehand to tell the two apart.
#pragma once

#include "zorv_records.h"

inline constexpr const char* kZorvdAddress = "@/var/run/zorvd.sock";

int add_conn_server_log(db_conn_server_log* record);
int list_conn_server_log(db_query_cond* cond, db_conn_server_log_query** result);
int delete_conn_server_log(db_delete_cond* cond);
int clean_conn_server_log();

int add_conn_client_log(db_conn_client_log_data* record);
int list_conn_client_log(db_query_cond* cond, db_conn_client_log_query** result);
int delete_conn_client_log(db_delete_cond* cond);
int clean_conn_client_log();

// The event record is opaque: one byte is sent, whatever it holds.
int add_event_data(db_event_data* record);
int list_event_data(db_query_cond* cond, db_event_query** result);

int add_server_list(db_server_list_data* record);
int list_server_list(db_query_cond* cond, db_server_list_query** result);
int delete_server_list(db_delete_cond* cond);
int clean_server_list();

// Fills *uuid with the UUID that the daemon keeps for the record's MAC address, terminated; *uuid
// is untouched when the call fails.
int add_device_info(db_device_info_data* record, zorv_mobile_gen_uuid_data_get* uuid);
int list_device_info(db_query_cond* cond, db_device_info_query** result);
int delete_device_info(db_delete_cond* cond);
int clean_device_info();

// Counts one failed login of the user.
int add_privilege_user_block(char* username);
int list_privilege_user_block(db_query_cond* cond, db_privilege_user_block_query** result);
int delete_privilege_user_block(char* username);
int clean_privilege_user_block();
// 1 = blocked, 0 = not blocked (an error inside the daemon reads as 0 too), otherwise the status of
// a failed call; KX_TIMEOUT (1) cannot be told from blocked.
int check_privilege_user_block(char* username);
