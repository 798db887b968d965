// The records that travel over the bus and are the rows of the store.
//
// They are copied byte for byte between processes, in the layout of the 32-bit ARM target on every
// machine: little-endian, 64-bit integers aligned to 8, structures padded to a multiple of their
// largest alignment. Text fields hold NUL-terminated text; bytes behind the terminator mean
// nothing.
//
// A request carries at most one record. A query is answered with the 24 bytes of its table's query
// header as they lie in memory, immediately followed by `count` records.
#pragma once

#include <cstddef>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "records are little-endian");
static_assert(sizeof(int) == 4 && sizeof(long long) == 8);

inline constexpr size_t kTextSize = 1025;  // of nearly every text field, terminator included

// The two 64-bit integers of the records, aligned as on the target whatever the machine.
using record_int64 = long long;
using record_uint64 = unsigned long long;
static_assert(alignof(record_int64) == 8 && alignof(record_uint64) == 8);

// Request of every query method: a page of rows.
struct db_query_cond {
  record_int64 start;        // rows to skip
  record_int64 count;        // rows wanted; -1 or more than 100000 means 100000
  record_int64 order_by;     // column index in the table's declared order, 0 = id
  record_int64 order_style;  // 0 = ascending, any other value = descending
  char field[kTextSize];     // column to filter by equality; "" for no filter
  char value[kTextSize];     // what `field` must equal; "" for no filter
};

// Request of the delete methods of the logs, the server list and the device info.
struct db_delete_cond {
  record_int64 id;
};

// One connection made to one of the NAS's VPN servers.
struct db_conn_server_log {
  record_int64 id;
  char username[kTextSize];
  int vpn_type;          // a server kind of zorv_connection_codes.h
  record_uint64 uptime;  // seconds
  record_uint64 time;    // seconds since the epoch
  char device_info[kTextSize];
  char source_ip[kTextSize];
  char vpn_ip[kTextSize];
  record_int64 tx_rate;
  record_int64 rx_rate;
  record_int64 tx_total;  // bytes
  record_int64 rx_total;  // bytes
  char outgoing[kTextSize];
  int action;  // zorv::Action of zorv_connection_codes.h
};

// One connection the NAS made as a VPN client.
struct db_conn_client_log_data {
  record_int64 id;
  char username[kTextSize];
  int vpn_type;          // a client kind of zorv_connection_codes.h
  record_uint64 uptime;  // seconds
  record_uint64 time;    // seconds since the epoch
  char vpn_ip[kTextSize];
  record_int64 tx_rate;
  record_int64 rx_rate;
  record_int64 tx_total;  // bytes
  record_int64 rx_total;  // bytes
  char country_code[3];   // two letters
  char wan_ip[kTextSize];
  int action;  // zorv::Action of zorv_connection_codes.h
};

// An event. It carries no fields: one byte that means nothing.
struct db_event_data {};

// One VPN server session.
struct db_server_list_data {
  record_int64 id;
  char uuid[kTextSize];
  char username[kTextSize];
  char sid[kTextSize];
  char device_name[1024];     // one byte shorter than the other text fields
  record_uint64 expire_time;  // seconds since the epoch
  record_uint64 time;         // seconds since the epoch
};

// One mobile client device.
struct db_device_info_data {
  record_int64 id;
  char ip[kTextSize];
  char mac[kTextSize];
  char hoxsid[kTextSize];  // NAS operating-system session id
  char user_id[kTextSize];
  char dev_name[kTextSize];
  char dev_uuid[kTextSize];  // assigned by the daemon on insert
  char nic[kTextSize];
  record_uint64 time;  // seconds since the epoch
};

// One user with failed logins.
struct db_privilege_user_block_data {
  record_int64 id;
  char username[kTextSize];
  int limit;                // failed logins counted; the column is named limit_count
  record_uint64 timestamp;  // last counted failure, seconds since the epoch; the low 32 bits count
};

// Head of a query's answer: `count` records in this answer, of `total` rows in the table (at most
// 100000). In memory `data` owns an array of `count` records from the C heap; on the wire its bytes
// mean nothing and the records follow at offset 24.
struct alignas(8) db_conn_server_log_query {
  record_uint64 count;
  record_uint64 total;
  db_conn_server_log* data;
};
struct alignas(8) db_conn_client_log_query {
  record_uint64 count;
  record_uint64 total;
  db_conn_client_log_data* data;
};
struct alignas(8) db_event_query {
  record_uint64 count;
  record_uint64 total;
  db_event_data* data;
};
struct alignas(8) db_server_list_query {
  record_uint64 count;
  record_uint64 total;
  db_server_list_data* data;
};
struct alignas(8) db_device_info_query {
  record_uint64 count;
  record_uint64 total;
  db_device_info_data* data;
};
struct alignas(8) db_privilege_user_block_query {
  record_uint64 count;
  record_uint64 total;
  db_privilege_user_block_data* data;
};

inline constexpr size_t kQueryHeaderSize = 24;

// Request of the UUID method: the kind of client asking, which the daemon does not read.
struct zorv_mobile_gen_uuid_data_set {
  int type;
};

// A device UUID of at most 35 characters, terminated within the array.
struct zorv_mobile_gen_uuid_data_get {
  char zorv_uuid[36];
};

// Each member at its offset, each record at its size.
static_assert(offsetof(db_query_cond, start) == 0 && offsetof(db_query_cond, count) == 8 &&
              offsetof(db_query_cond, order_by) == 16 &&
              offsetof(db_query_cond, order_style) == 24 && offsetof(db_query_cond, field) == 32 &&
              offsetof(db_query_cond, value) == 1057 && sizeof(db_query_cond) == 2088);
static_assert(offsetof(db_delete_cond, id) == 0 && sizeof(db_delete_cond) == 8);
static_assert(offsetof(db_conn_server_log, id) == 0 &&
              offsetof(db_conn_server_log, username) == 8 &&
              offsetof(db_conn_server_log, vpn_type) == 1036 &&
              offsetof(db_conn_server_log, uptime) == 1040 &&
              offsetof(db_conn_server_log, time) == 1048 &&
              offsetof(db_conn_server_log, device_info) == 1056 &&
              offsetof(db_conn_server_log, source_ip) == 2081 &&
              offsetof(db_conn_server_log, vpn_ip) == 3106 &&
              offsetof(db_conn_server_log, tx_rate) == 4136 &&
              offsetof(db_conn_server_log, rx_rate) == 4144 &&
              offsetof(db_conn_server_log, tx_total) == 4152 &&
              offsetof(db_conn_server_log, rx_total) == 4160 &&
              offsetof(db_conn_server_log, outgoing) == 4168 &&
              offsetof(db_conn_server_log, action) == 5196 && sizeof(db_conn_server_log) == 5200);
static_assert(offsetof(db_conn_client_log_data, id) == 0 &&
              offsetof(db_conn_client_log_data, username) == 8 &&
              offsetof(db_conn_client_log_data, vpn_type) == 1036 &&
              offsetof(db_conn_client_log_data, uptime) == 1040 &&
              offsetof(db_conn_client_log_data, time) == 1048 &&
              offsetof(db_conn_client_log_data, vpn_ip) == 1056 &&
              offsetof(db_conn_client_log_data, tx_rate) == 2088 &&
              offsetof(db_conn_client_log_data, rx_rate) == 2096 &&
              offsetof(db_conn_client_log_data, tx_total) == 2104 &&
              offsetof(db_conn_client_log_data, rx_total) == 2112 &&
              offsetof(db_conn_client_log_data, country_code) == 2120 &&
              offsetof(db_conn_client_log_data, wan_ip) == 2123 &&
              offsetof(db_conn_client_log_data, action) == 3148 &&
              sizeof(db_conn_client_log_data) == 3152);
static_assert(sizeof(db_event_data) == 1);
static_assert(offsetof(db_server_list_data, id) == 0 && offsetof(db_server_list_data, uuid) == 8 &&
              offsetof(db_server_list_data, username) == 1033 &&
              offsetof(db_server_list_data, sid) == 2058 &&
              offsetof(db_server_list_data, device_name) == 3083 &&
              offsetof(db_server_list_data, expire_time) == 4112 &&
              offsetof(db_server_list_data, time) == 4120 && sizeof(db_server_list_data) == 4128);
static_assert(offsetof(db_device_info_data, id) == 0 && offsetof(db_device_info_data, ip) == 8 &&
              offsetof(db_device_info_data, mac) == 1033 &&
              offsetof(db_device_info_data, hoxsid) == 2058 &&
              offsetof(db_device_info_data, user_id) == 3083 &&
              offsetof(db_device_info_data, dev_name) == 4108 &&
              offsetof(db_device_info_data, dev_uuid) == 5133 &&
              offsetof(db_device_info_data, nic) == 6158 &&
              offsetof(db_device_info_data, time) == 7184 && sizeof(db_device_info_data) == 7192);
static_assert(offsetof(db_privilege_user_block_data, id) == 0 &&
              offsetof(db_privilege_user_block_data, username) == 8 &&
              offsetof(db_privilege_user_block_data, limit) == 1036 &&
              offsetof(db_privilege_user_block_data, timestamp) == 1040 &&
              sizeof(db_privilege_user_block_data) == 1048);
static_assert(sizeof(db_conn_server_log_query) == kQueryHeaderSize &&
              sizeof(db_conn_client_log_query) == kQueryHeaderSize &&
              sizeof(db_event_query) == kQueryHeaderSize &&
              sizeof(db_server_list_query) == kQueryHeaderSize &&
              sizeof(db_device_info_query) == kQueryHeaderSize &&
              sizeof(db_privilege_user_block_query) == kQueryHeaderSize);
static_assert(offsetof(db_event_query, total) == 8 && offsetof(db_event_query, data) == 16);
static_assert(sizeof(zorv_mobile_gen_uuid_data_set) == 4 &&
              sizeof(zorv_mobile_gen_uuid_data_get) == 36);
