// The tables of records and their fields, declared once.
//
// A table is its fields, how long its rows live, and the methods that serve it. SQL types, value
// formats and limits follow from the fields. The store, the daemon's start and stop, its rows of
// methods, the client's calls and zorvctl's nouns all read these declarations, so the order of
// columns stands in one place.
//
// A table more: its record in zorv_records.h, its fields and its row of kTables here, its handlers
// and their rows in zorvd_db.cpp, its lines in docs/records.md; a module in tables/ if it does
// something of its own.
#pragma once

#include "zorv_field.h"

namespace zorv {

enum class Storage {
  persistent,
  temporary,  // lives in the daemon's connection and is lost with it
};

// What a delete or a clean builds on. An accumulating text is never restored: each delete and clean
// appends to what the ones before left, so the first runs as meant and later ones run the whole
// text.
enum class DeleteText { accumulates, restored };

// The wire name of each verb's method; null where the table has no such method. A verb more is a
// member more, named by the tables that have it.
struct TableMethods {
  const char* insert = nullptr;
  const char* query = nullptr;
  const char* remove = nullptr;
  const char* clean = nullptr;
};

struct TableSchema {
  const char* name;    // in SQL
  const char* module;  // whose name the log lines of its operations carry
  Storage storage;
  DeleteText delete_text;
  bool opened;                    // when the daemon starts, in the order of kTables
  bool finished;                  // when it stops
  std::span<const Field> fields;  // in the order of the columns, "id" first; none for an event
  size_t record_size;
  const Field* unique = nullptr;  // a row with a known value replaces the one that had it ...
  const Field* kept = nullptr;    // ... of which only this field stays; the daemon makes it
  const Field* needed = nullptr;  // a record without it says nothing
  TableMethods methods;

  // On zorvctl's command line.
  const char* noun;
  const char* plural;
  const char* description;
  const Field* time = nullptr;  // which moment a row speaks of

  // The field of that name, or null.
  constexpr const Field* find(std::string_view field_name) const {
    for (const Field& field : fields) {
      if (field.name == field_name) {
        return &field;
      }
    }
    return nullptr;
  }
  // Of one of this table's fields: what a query orders by.
  record_int64 index_of(const Field& field) const { return &field - fields.data(); }
  // Given by whoever adds a record, not by the daemon.
  bool is_given(const Field& field) const { return &field != fields.data() && &field != kept; }
};

inline constexpr Field kServerFields[] = {
    field<&db_conn_server_log::id>("id", "ID", Meaning::number),
    field<&db_conn_server_log::username>("username", "USER", Meaning::text, {2, 0}),
    code<&db_conn_server_log::vpn_type>("vpn_type", "PROTOCOL", kServerProtocols, {4, 4}),
    field<&db_conn_server_log::uptime>("uptime", "DURATION", Meaning::seconds, {7, 5}),
    field<&db_conn_server_log::time>("time", "TIME", Meaning::time, {1, 0}),
    field<&db_conn_server_log::device_info>("device_info", "DEVICE", Meaning::text),
    field<&db_conn_server_log::source_ip>("source_ip", "SOURCE", Meaning::address, {5, 2}),
    field<&db_conn_server_log::vpn_ip>("vpn_ip", "VPN-IP", Meaning::addresses, {6, 3}),
    field<&db_conn_server_log::tx_rate>("tx_rate", nullptr, Meaning::number),
    field<&db_conn_server_log::rx_rate>("rx_rate", nullptr, Meaning::number),
    field<&db_conn_server_log::tx_total>("tx_total", "SENT", Meaning::bytes, {8, 6}),
    field<&db_conn_server_log::rx_total>("rx_total", "RECEIVED", Meaning::bytes, {9, 7}),
    field<&db_conn_server_log::outgoing>("outgoing", "OUTGOING", Meaning::text),
    code<&db_conn_server_log::action>("action", "ACTION", kServerActions, {3, 1}),
};

inline constexpr Field kClientFields[] = {
    field<&db_conn_client_log_data::id>("id", "ID", Meaning::number),
    field<&db_conn_client_log_data::username>("username", "USER", Meaning::text, {2, 0}),
    code<&db_conn_client_log_data::vpn_type>("vpn_type", "PROTOCOL", kClientProtocols, {4, 4}),
    field<&db_conn_client_log_data::uptime>("uptime", "DURATION", Meaning::seconds, {8, 5}),
    field<&db_conn_client_log_data::time>("time", "TIME", Meaning::time, {1, 0}),
    field<&db_conn_client_log_data::vpn_ip>("vpn_ip", "VPN-IP", Meaning::addresses, {7, 3}),
    field<&db_conn_client_log_data::tx_rate>("tx_rate", nullptr, Meaning::number),
    field<&db_conn_client_log_data::rx_rate>("rx_rate", nullptr, Meaning::number),
    field<&db_conn_client_log_data::tx_total>("tx_total", "SENT", Meaning::bytes, {9, 6}),
    field<&db_conn_client_log_data::rx_total>("rx_total", "RECEIVED", Meaning::bytes, {10, 7}),
    field<&db_conn_client_log_data::country_code>("country_code", "COUNTRY", Meaning::text, {6, 8}),
    field<&db_conn_client_log_data::wan_ip>("wan_ip", "PUBLIC-IP", Meaning::address, {5, 2}),
    code<&db_conn_client_log_data::action>("action", "ACTION", kClientActions, {3, 1}),
};

inline constexpr Field kSessionFields[] = {
    field<&db_server_list_data::id>("id", "ID", Meaning::number, {1, 5}),
    field<&db_server_list_data::uuid>("uuid", "UUID", Meaning::text),
    field<&db_server_list_data::username>("username", "USER", Meaning::text, {3, 0}),
    field<&db_server_list_data::sid>("sid", "SID", Meaning::text),
    field<&db_server_list_data::device_name>("device_name", "DEVICE", Meaning::text, {4, 1}),
    field<&db_server_list_data::expire_time>("expire_time", "EXPIRES", Meaning::time, {5, 2}),
    field<&db_server_list_data::time>("time", "TIME", Meaning::time, {2, 0}),
};

inline constexpr Field kDeviceFields[] = {
    field<&db_device_info_data::id>("id", "ID", Meaning::number, {1, 5}),
    field<&db_device_info_data::ip>("ip", "IP", Meaning::address, {5, 1}),
    field<&db_device_info_data::mac>("mac", "MAC", Meaning::text, {6, 0}),
    field<&db_device_info_data::hoxsid>("hoxsid", "HOXSID", Meaning::text),
    field<&db_device_info_data::user_id>("user_id", "USER", Meaning::text, {3, 0}),
    field<&db_device_info_data::dev_name>("dev_name", "NAME", Meaning::text, {4, 2}),
    field<&db_device_info_data::dev_uuid>("dev_uuid", "UUID", Meaning::text),
    field<&db_device_info_data::nic>("nic", "NIC", Meaning::text),
    field<&db_device_info_data::time>("time", "TIME", Meaning::time, {2, 3}),
};

inline constexpr Field kBlockFields[] = {
    field<&db_privilege_user_block_data::id>("id", "ID", Meaning::number),
    field<&db_privilege_user_block_data::username>("username", "USER", Meaning::text, {1, 0}),
    wrapped(field<&db_privilege_user_block_data::limit>("limit_count", "FAILURES", Meaning::number,
                                                        {2, 1})),
    field<&db_privilege_user_block_data::timestamp>("timestamp", "SINCE", Meaning::time, {3, 0}),
};

// The field of that name; one that is not there does not compile.
consteval const Field* named_field(std::span<const Field> fields, std::string_view name) {
  for (const Field& field : fields) {
    if (field.name == name) {
      return &field;
    }
  }
  throw "no field of that name";
}

inline constexpr TableSchema kServerLog = {
    .name = "conn_server_log",
    .module = "zorvd_db_handler",
    .storage = Storage::persistent,
    .delete_text = DeleteText::accumulates,
    .opened = true,
    .finished = true,
    .fields = kServerFields,
    .record_size = sizeof(db_conn_server_log),
    .needed = named_field(kServerFields, "username"),
    .methods = {.insert = "db_conn_insert",
                .query = "db_conn_server_log_query",
                .remove = "db_conn_server_log_del",
                .clean = "db_conn_server_log_clean"},
    .noun = "server-log",
    .plural = "connections",
    .description = "Connections made to this NAS's VPN servers",
    .time = named_field(kServerFields, "time"),
};

inline constexpr TableSchema kClientLog = {
    .name = "conn_client_log",
    .module = "zorvd_db_conn_client_handler",
    .storage = Storage::persistent,
    .delete_text = DeleteText::accumulates,
    .opened = true,
    .finished = true,
    .fields = kClientFields,
    .record_size = sizeof(db_conn_client_log_data),
    .methods = {.insert = "db_conn_client_log_insert",
                .query = "db_conn_client_log_query",
                .remove = "db_conn_client_log_del",
                .clean = "db_conn_client_log_clean"},
    .noun = "client-log",
    .plural = "connections",
    .description = "Connections this NAS made as a VPN client",
    .time = named_field(kClientFields, "time"),
};

// A placeholder that is never opened. An event has no fields, not even an id that travels.
inline constexpr TableSchema kEventLog = {
    .name = "event_log",
    .module = "zorvd_db_event_handler",
    .storage = Storage::persistent,
    .delete_text = DeleteText::accumulates,
    .opened = false,
    .finished = false,
    .fields = {},
    .record_size = sizeof(db_event_data),
    .methods = {.insert = "db_event_insert", .query = "db_event_query"},
    .noun = "event",
    .plural = "events",
    .description = "Events; the daemon accepts them and keeps none",
};

inline constexpr TableSchema kServerList = {
    .name = "server_list",
    .module = "zorvd_db_list_handler",
    .storage = Storage::temporary,
    .delete_text = DeleteText::accumulates,
    .opened = true,
    .finished = true,
    .fields = kSessionFields,
    .record_size = sizeof(db_server_list_data),
    .methods = {.insert = "db_server_list_insert",
                .query = "db_server_list_query",
                .remove = "db_server_list_del",
                .clean = "db_server_list_clean"},
    .noun = "session",
    .plural = "sessions",
    .description = "Sessions of the VPN servers, lost when the daemon stops",
    .time = named_field(kSessionFields, "time"),
};

// Not finished: it is temporary and ends with the process.
inline constexpr TableSchema kDeviceInfo = {
    .name = "device_info",
    .module = "zorvd_db_device_info_handler",
    .storage = Storage::temporary,
    .delete_text = DeleteText::restored,
    .opened = true,
    .finished = false,
    .fields = kDeviceFields,
    .record_size = sizeof(db_device_info_data),
    .unique = named_field(kDeviceFields, "mac"),
    .kept = named_field(kDeviceFields, "dev_uuid"),
    .needed = named_field(kDeviceFields, "mac"),
    .methods = {.insert = "db_device_info_insert",
                .query = "db_device_info_query",
                .remove = "db_device_info_del",
                .clean = "db_device_info_clean"},
    .noun = "device",
    .plural = "devices",
    .description = "Devices of mobile clients, lost when the daemon stops",
    .time = named_field(kDeviceFields, "time"),
};

inline constexpr TableSchema kUserBlock = {
    .name = "privilege_user_block",
    .module = "zorvd_db_privilege_user_block_handler",
    .storage = Storage::persistent,
    .delete_text = DeleteText::restored,
    .opened = true,
    .finished = true,
    .fields = kBlockFields,
    .record_size = sizeof(db_privilege_user_block_data),
    .methods = {.insert = "db_privilege_user_block_insert",
                .query = "db_privilege_user_block_query",
                .remove = "db_privilege_user_block_del",
                .clean = "db_privilege_user_block_clean"},
    .noun = "block",
    .plural = "users",
    .description = "Users with failed logins, and who of them is blocked",
    .time = named_field(kBlockFields, "timestamp"),
};

inline constexpr const TableSchema* kTables[] = {&kServerLog,  &kClientLog,  &kEventLog,
                                                 &kServerList, &kDeviceInfo, &kUserBlock};

}  // namespace zorv
