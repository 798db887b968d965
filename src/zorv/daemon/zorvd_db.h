// The handlers of the record methods; see zorvd_handler.h for what a handler owes.
//
// A record is copied at its full size from the start of the payload, whatever length came: the bus
// keeps request buffers readable that far and zero behind the payload.
#pragma once

#include <span>

#include "kxbus.h"
#include "zorvd_value_format.h"

// A method of the daemon, in a row beside its handler.
struct Method {
  const char* name;  // as callers send it; not uniform, and kept so
  int (*handler)(kx_io* io);
  size_t request;  // bytes of the record that it takes; 0: none
  size_t reply;    // bytes that its answer has at least
};

// All of them.
std::span<const Method> methods();

int db_conn_insert_handler(kx_io* io);
int db_conn_server_log_query_handler(kx_io* io);
int db_conn_server_delete_handler(kx_io* io);
int db_conn_server_clean_handler(kx_io* io);

int db_conn_client_log_insert_handler(kx_io* io);
int db_conn_client_log_query_handler(kx_io* io);
int db_conn_client_delete_handler(kx_io* io);
int db_conn_client_clean_handler(kx_io* io);

int db_event_insert_handler(kx_io* io);
int db_event_query_handler(kx_io* io);

int db_server_list_insert_handler(kx_io* io);
int db_server_list_query_handler(kx_io* io);
int db_server_list_delete_handler(kx_io* io);
int db_server_list_clean_handler(kx_io* io);

// Answers with the 36 bytes of the UUID that the table keeps for the record's MAC address.
int db_device_info_insert_handler(kx_io* io);
int db_device_info_query_handler(kx_io* io);
int db_device_info_delete_handler(kx_io* io);
int db_device_info_clean_handler(kx_io* io);

// The payload of insert, delete and check is the user name.
int db_privilege_user_block_insert_handler(kx_io* io);
int db_privilege_user_block_query_handler(kx_io* io);
int db_privilege_user_block_delete_handler(kx_io* io);
int db_privilege_user_block_clean_handler(kx_io* io);
// Answers with the result as decimal digits.
int db_privilege_user_block_check_handler(kx_io* io);
