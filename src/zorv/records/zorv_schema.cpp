#include "zorv_schema.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <type_traits>

namespace zorv {
namespace {

template <class Record, class Member>
Record record_of(Member Record::*);
template <class Record, class Member>
Member member_of(Member Record::*);

template <auto Member>
void* address(void* record) {
  return &(static_cast<decltype(record_of(Member))*>(record)->*Member);
}

template <class Member>
consteval FieldType type_of() {
  if constexpr (std::is_same_v<Member, int>) {
    return FieldType::int32;
  } else if constexpr (std::is_same_v<Member, record_int64>) {
    return FieldType::int64;
  } else {
    static_assert(std::is_same_v<Member, record_uint64>, "no column holds a member of this type");
    return FieldType::uint64;
  }
}

template <class Record, size_t Size>
consteval size_t text_size(char (Record::*)[Size]) {
  return Size;
}
template <class Record, class Member>
consteval size_t text_size(Member Record::*) {
  return 0;
}

template <auto Member>
consteval Field field(const char* name, const char* heading, Meaning meaning) {
  constexpr size_t kText = text_size(Member);
  if ((kText != 0) != (meaning == Meaning::text) || meaning == Meaning::code) {
    throw "an array of characters is a text, and only that";
  }
  if constexpr (kText != 0) {
    return {name, heading, meaning, {}, FieldType::text, kText, address<Member>};
  } else {
    using Number = decltype(member_of(Member));
    const bool is_amount = meaning == Meaning::seconds || meaning == Meaning::time;
    if (is_amount && !std::is_unsigned_v<Number>) {
      throw "times and durations are unsigned";
    }
    return {name, heading, meaning, {}, type_of<Number>(), sizeof(Number), address<Member>};
  }
}

template <auto Member>
consteval Field code(const char* name, const char* heading, std::span<const CodeWord> words) {
  static_assert(std::is_same_v<decltype(member_of(Member)), int>, "a code is an int");
  return {name, heading, Meaning::code, words, FieldType::int32, sizeof(int), address<Member>};
}

using Server = db_conn_server_log;
constexpr Field kServerFields[] = {
    field<&Server::id>("id", "ID", Meaning::number),
    field<&Server::username>("username", "USER", Meaning::text),
    code<&Server::vpn_type>("vpn_type", "PROTOCOL", kServerProtocols),
    field<&Server::uptime>("uptime", "DURATION", Meaning::seconds),
    field<&Server::time>("time", "TIME", Meaning::time),
    field<&Server::device_info>("device_info", "DEVICE", Meaning::text),
    field<&Server::source_ip>("source_ip", "SOURCE", Meaning::text),
    field<&Server::vpn_ip>("vpn_ip", "VPN IP", Meaning::text),
    field<&Server::tx_rate>("tx_rate", nullptr, Meaning::number),
    field<&Server::rx_rate>("rx_rate", nullptr, Meaning::number),
    field<&Server::tx_total>("tx_total", "SENT", Meaning::bytes),
    field<&Server::rx_total>("rx_total", "RECEIVED", Meaning::bytes),
    field<&Server::outgoing>("outgoing", "OUTGOING", Meaning::text),
    code<&Server::action>("action", "ACTION", kServerActions),
};

using Client = db_conn_client_log_data;
constexpr Field kClientFields[] = {
    field<&Client::id>("id", "ID", Meaning::number),
    field<&Client::username>("username", "USER", Meaning::text),
    code<&Client::vpn_type>("vpn_type", "PROTOCOL", kClientProtocols),
    field<&Client::uptime>("uptime", "DURATION", Meaning::seconds),
    field<&Client::time>("time", "TIME", Meaning::time),
    field<&Client::vpn_ip>("vpn_ip", "VPN IP", Meaning::text),
    field<&Client::tx_rate>("tx_rate", nullptr, Meaning::number),
    field<&Client::rx_rate>("rx_rate", nullptr, Meaning::number),
    field<&Client::tx_total>("tx_total", "SENT", Meaning::bytes),
    field<&Client::rx_total>("rx_total", "RECEIVED", Meaning::bytes),
    field<&Client::country_code>("country_code", "COUNTRY", Meaning::text),
    field<&Client::wan_ip>("wan_ip", "PUBLIC IP", Meaning::text),
    code<&Client::action>("action", "ACTION", kClientActions),
};

using Session = db_server_list_data;
constexpr Field kSessionFields[] = {
    field<&Session::id>("id", "ID", Meaning::number),
    field<&Session::uuid>("uuid", "UUID", Meaning::text),
    field<&Session::username>("username", "USER", Meaning::text),
    field<&Session::sid>("sid", "SID", Meaning::text),
    field<&Session::device_name>("device_name", "DEVICE", Meaning::text),
    field<&Session::expire_time>("expire_time", "EXPIRES", Meaning::time),
    field<&Session::time>("time", "TIME", Meaning::time),
};

using Device = db_device_info_data;
constexpr Field kDeviceFields[] = {
    field<&Device::id>("id", "ID", Meaning::number),
    field<&Device::ip>("ip", "IP", Meaning::text),
    field<&Device::mac>("mac", "MAC", Meaning::text),
    field<&Device::hoxsid>("hoxsid", "HOXSID", Meaning::text),
    field<&Device::user_id>("user_id", "USER", Meaning::text),
    field<&Device::dev_name>("dev_name", "NAME", Meaning::text),
    field<&Device::dev_uuid>("dev_uuid", "UUID", Meaning::text),
    field<&Device::nic>("nic", "NIC", Meaning::text),
    field<&Device::time>("time", "TIME", Meaning::time),
};

// Failures beyond 32 bits wrap around instead of staying at the highest.
consteval Field wrapped(Field field) {
  field.type = FieldType::wrapped_int32;
  return field;
}

using Block = db_privilege_user_block_data;
constexpr Field kBlockFields[] = {
    field<&Block::id>("id", "ID", Meaning::number),
    field<&Block::username>("username", "USER", Meaning::text),
    wrapped(field<&Block::limit>("limit_count", "FAILURES", Meaning::number)),
    field<&Block::timestamp>("timestamp", "SINCE", Meaning::time),
};

consteval const Field* named(std::span<const Field> fields, std::string_view name) {
  for (const Field& field : fields) {
    if (field.name == name) {
      return &field;
    }
  }
  throw "no field of that name";
}

}  // namespace

constexpr TableSchema kServerLog = {
    .name = "conn_server_log",
    .module = "zorvd_db_handler",
    .storage = Storage::persistent,
    .delete_text = DeleteText::accumulates,
    .opened = true,
    .finished = true,
    .fields = kServerFields,
    .record_size = sizeof(Server),
    .methods = {.insert = "db_conn_insert",
                .query = "db_conn_server_log_query",
                .remove = "db_conn_server_log_del",
                .clean = "db_conn_server_log_clean"},
    .noun = "server-log",
    .plural = "connections",
    .description = "Connections made to this NAS's VPN servers",
    .time = named(kServerFields, "time"),
};

constexpr TableSchema kClientLog = {
    .name = "conn_client_log",
    .module = "zorvd_db_conn_client_handler",
    .storage = Storage::persistent,
    .delete_text = DeleteText::accumulates,
    .opened = true,
    .finished = true,
    .fields = kClientFields,
    .record_size = sizeof(Client),
    .methods = {.insert = "db_conn_client_log_insert",
                .query = "db_conn_client_log_query",
                .remove = "db_conn_client_log_del",
                .clean = "db_conn_client_log_clean"},
    .noun = "client-log",
    .plural = "connections",
    .description = "Connections this NAS made as a VPN client",
    .time = named(kClientFields, "time"),
};

// A placeholder that is never opened. An event has no fields, not even an id that travels.
constexpr TableSchema kEventLog = {
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

constexpr TableSchema kServerList = {
    .name = "server_list",
    .module = "zorvd_db_list_handler",
    .storage = Storage::temporary,
    .delete_text = DeleteText::accumulates,
    .opened = true,
    .finished = true,
    .fields = kSessionFields,
    .record_size = sizeof(Session),
    .methods = {.insert = "db_server_list_insert",
                .query = "db_server_list_query",
                .remove = "db_server_list_del",
                .clean = "db_server_list_clean"},
    .noun = "session",
    .plural = "sessions",
    .description = "Sessions of the VPN servers, lost when the daemon stops",
    .time = named(kSessionFields, "time"),
};

// Not finished: it is temporary and ends with the process.
constexpr TableSchema kDeviceInfo = {
    .name = "device_info",
    .module = "zorvd_db_device_info_handler",
    .storage = Storage::temporary,
    .delete_text = DeleteText::restored,
    .opened = true,
    .finished = false,
    .fields = kDeviceFields,
    .record_size = sizeof(Device),
    .unique = named(kDeviceFields, "mac"),
    .kept = named(kDeviceFields, "dev_uuid"),
    .methods = {.insert = "db_device_info_insert",
                .query = "db_device_info_query",
                .remove = "db_device_info_del",
                .clean = "db_device_info_clean"},
    .noun = "device",
    .plural = "devices",
    .description = "Devices of mobile clients, lost when the daemon stops",
    .time = named(kDeviceFields, "time"),
};

constexpr TableSchema kUserBlock = {
    .name = "privilege_user_block",
    .module = "zorvd_db_privilege_user_block_handler",
    .storage = Storage::persistent,
    .delete_text = DeleteText::restored,
    .opened = true,
    .finished = true,
    .fields = kBlockFields,
    .record_size = sizeof(Block),
    .methods = {.insert = "db_privilege_user_block_insert",
                .query = "db_privilege_user_block_query",
                .remove = "db_privilege_user_block_del",
                .clean = "db_privilege_user_block_clean"},
    .noun = "block",
    .plural = "users",
    .description = "Users with failed logins, and who of them is blocked",
    .time = named(kBlockFields, "timestamp"),
};

namespace {
constexpr const TableSchema* kAllTables[] = {&kServerLog,  &kClientLog,  &kEventLog,
                                             &kServerList, &kDeviceInfo, &kUserBlock};
}  // namespace

constexpr std::span<const TableSchema* const> kTables = kAllTables;

FieldValue get(const Field& field, const void* record) {
  const void* const member = field.member(const_cast<void*>(record));
  switch (field.type) {
    case FieldType::text: {
      const auto* const text = static_cast<const char*>(member);
      return std::string_view(text, strnlen(text, field.size));
    }
    case FieldType::int32:
    case FieldType::wrapped_int32:
      return record_int64{*static_cast<const int*>(member)};
    case FieldType::int64:
      return *static_cast<const record_int64*>(member);
    case FieldType::uint64:
      break;
  }
  return *static_cast<const record_uint64*>(member);
}

void set(const Field& field, void* record, const FieldValue& value) {
  void* const member = field.member(record);
  switch (field.type) {
    case FieldType::text:
      copy_text(static_cast<char*>(member), field.size, std::get<std::string_view>(value));
      break;
    case FieldType::int32:
    case FieldType::wrapped_int32:
      *static_cast<int*>(member) = static_cast<int>(std::get<record_int64>(value));
      break;
    case FieldType::int64:
      *static_cast<record_int64*>(member) = std::get<record_int64>(value);
      break;
    case FieldType::uint64:
      *static_cast<record_uint64*>(member) = std::get<record_uint64>(value);
      break;
  }
}

void copy_text(char* ret_text, size_t size, std::string_view text) {
  std::memset(ret_text, 0, size);
  text.copy(ret_text, size - 1);
}

const Field* TableSchema::find(std::string_view field_name) const {
  const auto found = std::find_if(fields.begin(), fields.end(), [field_name](const Field& field) {
    return field.name == field_name;
  });
  return found != fields.end() ? &*found : nullptr;
}

}  // namespace zorv
