#include "record_kind.h"

#include <iterator>

#include "zorv_api_db.h"

namespace zorvctl {
namespace {

// The daemon adds to the statements of these tables and never takes back what it added.
constexpr const char* kLogCaution =
    "Until zorvd is restarted, a delete after a clean deletes EVERY record, which it says and "
    "ends\n"
    "with 1, and a clean after a delete deletes none.";
constexpr const char* kSessionCaution =
    "Until zorvd is restarted, one delete works: the next delete or clean after it, or a delete\n"
    "after a clean, fails and may lose the whole list.";

using Server = db_conn_server_log;
constexpr Column kServerLogColumns[] = {
    column<&Server::id>("id", "ID", Kind::integer, Filled::by_daemon),
    column<&Server::username>("username", "USER", Kind::text),
    column<&Server::vpn_type>("vpn_type", "PROTOCOL", Kind::server_protocol),
    column<&Server::uptime>("uptime", "DURATION", Kind::duration),
    column<&Server::time>("time", "TIME", Kind::time),
    column<&Server::device_info>("device_info", "DEVICE", Kind::text),
    column<&Server::source_ip>("source_ip", "SOURCE", Kind::text),
    column<&Server::vpn_ip>("vpn_ip", "VPN IP", Kind::text),
    column<&Server::tx_rate>("tx_rate", nullptr, Kind::integer),
    column<&Server::rx_rate>("rx_rate", nullptr, Kind::integer),
    column<&Server::tx_total>("tx_total", "SENT", Kind::bytes),
    column<&Server::rx_total>("rx_total", "RECEIVED", Kind::bytes),
    column<&Server::outgoing>("outgoing", "OUTGOING", Kind::text),
    column<&Server::action>("action", "ACTION", Kind::server_action),
};

using Client = db_conn_client_log_data;
constexpr Column kClientLogColumns[] = {
    column<&Client::id>("id", "ID", Kind::integer, Filled::by_daemon),
    column<&Client::username>("username", "USER", Kind::text),
    column<&Client::vpn_type>("vpn_type", "PROTOCOL", Kind::client_protocol),
    column<&Client::uptime>("uptime", "DURATION", Kind::duration),
    column<&Client::time>("time", "TIME", Kind::time),
    column<&Client::vpn_ip>("vpn_ip", "VPN IP", Kind::text),
    column<&Client::tx_rate>("tx_rate", nullptr, Kind::integer),
    column<&Client::rx_rate>("rx_rate", nullptr, Kind::integer),
    column<&Client::tx_total>("tx_total", "SENT", Kind::bytes),
    column<&Client::rx_total>("rx_total", "RECEIVED", Kind::bytes),
    column<&Client::country_code>("country_code", "COUNTRY", Kind::text),
    column<&Client::wan_ip>("wan_ip", "PUBLIC IP", Kind::text),
    column<&Client::action>("action", "ACTION", Kind::client_action),
};

using Session = db_server_list_data;
constexpr Column kSessionColumns[] = {
    column<&Session::id>("id", "ID", Kind::integer, Filled::by_daemon),
    column<&Session::uuid>("uuid", "UUID", Kind::text),
    column<&Session::username>("username", "USER", Kind::text),
    column<&Session::sid>("sid", "SID", Kind::text),
    column<&Session::device_name>("device_name", "DEVICE", Kind::text),
    column<&Session::expire_time>("expire_time", "EXPIRES", Kind::time),
    column<&Session::time>("time", "TIME", Kind::time),
};

using Device = db_device_info_data;
constexpr Column kDeviceColumns[] = {
    column<&Device::id>("id", "ID", Kind::integer, Filled::by_daemon),
    column<&Device::ip>("ip", "IP", Kind::text),
    column<&Device::mac>("mac", "MAC", Kind::text),
    column<&Device::hoxsid>("hoxsid", "HOXSID", Kind::text),
    column<&Device::user_id>("user_id", "USER", Kind::text),
    column<&Device::dev_name>("dev_name", "NAME", Kind::text),
    column<&Device::dev_uuid>("dev_uuid", "UUID", Kind::text, Filled::by_daemon),
    column<&Device::nic>("nic", "NIC", Kind::text),
    column<&Device::time>("time", "TIME", Kind::time),
};

using Block = db_privilege_user_block_data;
constexpr Column kBlockColumns[] = {
    column<&Block::id>("id", "ID", Kind::integer, Filled::by_daemon),
    column<&Block::username>("username", "USER", Kind::text),
    column<&Block::limit>("limit_count", "FAILURES", Kind::integer),
    column<&Block::timestamp>("timestamp", "SINCE", Kind::time),
};

// A query through a client function, which gives no status: what it left untouched, it failed on.
template <auto List, class Result>
Page list_page_of(db_query_cond& cond) {
  constexpr unsigned long long kUntouched = ~0ULL;
  Result answer;
  answer.count = kUntouched;
  answer.total = 0;
  answer.data = nullptr;
  Result* result = &answer;
  List(&cond, &result);
  Page page;
  if (answer.count != kUntouched) {
    page.answered = true;
    page.count = answer.count;
    page.total = answer.total;
    page.records.reset(answer.data);
    page.record_size = sizeof(typename Result::record_type);
  }
  return page;
}

template <auto Add, class Record>
int add_of(void* record, std::string* /*ret_answer*/) {
  return Add(static_cast<Record*>(record));
}

int add_device(void* record, std::string* ret_answer) {
  zorv_mobile_gen_uuid_data_get kept{};
  const int status = add_device_info(static_cast<Device*>(record), &kept);
  if (status == 0) {
    ret_answer->assign(kept.zorv_uuid, strnlen(kept.zorv_uuid, sizeof kept.zorv_uuid));
  }
  return status;
}

template <auto Delete>
int remove_of(long long id) {
  db_delete_cond cond{id};
  return Delete(&cond);
}

}  // namespace

const RecordKind kServerLog = {
    .noun = "server-log",
    .description = "Connections made to this NAS's VPN servers",
    .plural = "connections",
    .columns = kServerLogColumns,
    .time_column = "time",
    .always_empty = false,
    .record_size = sizeof(Server),
    .delete_caution = kLogCaution,
    .deletes_once = false,
    .answers_add = false,
    .list = list_page_of<list_conn_server_log, db_conn_server_log_query>,
    .add = add_of<add_conn_server_log, Server>,
    .remove = remove_of<delete_conn_server_log>,
    .clean = clean_conn_server_log,
};

const RecordKind kClientLog = {
    .noun = "client-log",
    .description = "Connections this NAS made as a VPN client",
    .plural = "connections",
    .columns = kClientLogColumns,
    .time_column = "time",
    .always_empty = false,
    .record_size = sizeof(Client),
    .delete_caution = kLogCaution,
    .deletes_once = false,
    .answers_add = false,
    .list = list_page_of<list_conn_client_log, db_conn_client_log_query>,
    .add = add_of<add_conn_client_log, Client>,
    .remove = remove_of<delete_conn_client_log>,
    .clean = clean_conn_client_log,
};

// An event has no fields, not even an id that travels.
const RecordKind kEvent = {
    .noun = "event",
    .description = "Events; the daemon accepts them and keeps none",
    .plural = "events",
    .columns = {},
    .time_column = nullptr,
    .always_empty = true,
    .record_size = sizeof(db_event_data),
    .delete_caution = nullptr,
    .deletes_once = false,
    .answers_add = false,
    .list = list_page_of<list_event_data, db_event_query>,
    .add = add_of<add_event_data, db_event_data>,
    .remove = nullptr,
    .clean = nullptr,
};

const RecordKind kSession = {
    .noun = "session",
    .description = "Sessions of the VPN servers, lost when the daemon stops",
    .plural = "sessions",
    .columns = kSessionColumns,
    .time_column = "time",
    .always_empty = false,
    .record_size = sizeof(Session),
    .delete_caution = kSessionCaution,
    .deletes_once = true,
    .answers_add = false,
    .list = list_page_of<list_server_list, db_server_list_query>,
    .add = add_of<add_server_list, Session>,
    .remove = remove_of<delete_server_list>,
    .clean = clean_server_list,
};

const RecordKind kDevice = {
    .noun = "device",
    .description = "Devices of mobile clients, lost when the daemon stops",
    .plural = "devices",
    .columns = kDeviceColumns,
    .time_column = "time",
    .always_empty = false,
    .record_size = sizeof(Device),
    .delete_caution = nullptr,
    .deletes_once = false,
    .answers_add = true,
    .list = list_page_of<list_device_info, db_device_info_query>,
    .add = add_device,
    .remove = remove_of<delete_device_info>,
    .clean = clean_device_info,
};

const RecordKind kBlock = {
    .noun = "block",
    .description = "Users with failed logins, and who of them is blocked",
    .plural = "users",
    .columns = kBlockColumns,
    .time_column = "timestamp",
    .always_empty = false,
    .record_size = sizeof(Block),
    .delete_caution = nullptr,
    .deletes_once = false,
    .answers_add = false,
    .list = list_page_of<list_privilege_user_block, db_privilege_user_block_query>,
    .add = nullptr,
    .remove = nullptr,
    .clean = clean_privilege_user_block,
};

}  // namespace zorvctl
