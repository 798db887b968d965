#include "nc_msg_db.h"
#include "zorvd_connection_words.h"
#include "zorvd_tables.h"
#include "zorvd_value_format.h"

namespace store {
namespace {

using Record = db_conn_client_log_data;

Table& table = table_of(zorv::kClientLog);
LogModule& log_module = table.log;

constexpr const zorv::nc_msg_struct* kConnectionLogged = zorv::nc_msg("C002", "0018");

void notify(const LogSite& site, const Record& record) {
  const auto words = connection_words(site, &zorv::VpnKind::client, record.vpn_type,
                                      zorv::kClientActions, record.action);
  if (!words) {
    return;
  }
  std::string uptime = kBlank;
  std::string sent = kBlank;
  std::string received = kBlank;
  if (record.action == zorv::kLogout) {
    secondsToStr(static_cast<long long>(record.uptime), uptime);
    bytesToStr(record.tx_total, sent);
    bytesToStr(record.rx_total, received);
  }
  const bool placed = record.action != zorv::kLoginOk;
  zorv::nclog::notify_send(kConnectionLogged,
                           timestamp(static_cast<long long>(record.time)).c_str(), uptime.c_str(),
                           record.username, words->protocol, record.vpn_ip,
                           placed ? record.wan_ip : kBlank, placed ? record.country_code : kBlank,
                           sent.c_str(), received.c_str(), words->status, nullptr);
}

}  // namespace

int create_conn_client_log_db() {
  return create(table);
}

int insert_conn_client_log(Record* record) {
  insert_record(table, record);
  notify(ZORV_HERE, *record);
  return 0;
}

int select_conn_client_log(const db_query_cond* cond, db_conn_client_log_query** out) {
  return select_query(table, *cond, out);
}

int delete_conn_client_log(const db_delete_cond* cond) {
  return delete_row(table, cond->id);
}

int clean_conn_client_log() {
  return clean(table);
}

int optimize_client_log_db() {
  return optimize(table);
}

int finish_conn_client_log_db() {
  return finish(table);
}

}  // namespace store
