#include "nc_msg_db.h"
#include "zorvd_connection_words.h"
#include "zorvd_tables.h"
#include "zorvd_value_format.h"

namespace store {
namespace {

using Record = db_conn_server_log;

Table& table = table_of(zorv::kServerLog);
LogModule& log_module = table.log;

constexpr const zorv::nc_msg_struct* kConnectionLogged = zorv::nc_msg("C001", "0017");

void notify(const LogSite& site, const Record& record) {
  std::string sent;
  std::string received;
  bytesToStr(record.tx_total, sent);
  bytesToStr(record.rx_total, received);
  const auto words = connection_words(site, &zorv::VpnKind::server, record.vpn_type,
                                      zorv::kServerActions, record.action);
  if (!words) {
    return;
  }
  std::string uptime = kBlank;
  if (record.action == zorv::kLogout) {
    secondsToStr(static_cast<long long>(record.uptime), uptime);
  }
  const char* client_ip = record.action == zorv::kLoginFail ? kBlank : record.vpn_ip;
  zorv::nclog::notify_send(kConnectionLogged,
                           timestamp(static_cast<long long>(record.time)).c_str(), uptime.c_str(),
                           record.username, record.source_ip, client_ip, sent.c_str(),
                           received.c_str(), words->protocol, words->status, nullptr);
}

}  // namespace

int create_conn_server_log_db() {
  return create(table);
}

int insert_conn_server_log(Record* record) {
  insert_record(table, record);
  notify(ZORV_HERE, *record);
  return 0;
}

int select_conn_server_log(const db_query_cond* cond, db_conn_server_log_query** out) {
  return select_query(table, *cond, out);
}

int delete_conn_server_log(const db_delete_cond* cond) {
  return delete_row(table, cond->id);
}

int clean_conn_server_log() {
  return clean(table);
}

int optimize_server_log_db() {
  return optimize(table);
}

int finish_conn_server_log_db() {
  return finish(table);
}

}  // namespace store
