#include "zorvd_db_conn_client_handler.h"

#include "nc_msg_db.h"
#include "zorvd_connection_words.h"
#include "zorvd_db_rows.h"
#include "zorvd_value_format.h"

namespace store {
namespace {

LogModule log_module{"zorvd_db_conn_client_handler"};

using Record = db_conn_client_log_data;

constexpr std::tuple columns{
    column("username", "TEXT", "'%q'", &Record::username),
    column("vpn_type", "INTEGER", "%d", &Record::vpn_type),
    column("uptime", "INTEGER", "%llu", &Record::uptime),
    column("time", "INTEGER", "%llu", &Record::time),
    column("vpn_ip", "TEXT", "'%q'", &Record::vpn_ip),
    column("tx_rate", "INTEGER", "%lld", &Record::tx_rate),
    column("rx_rate", "INTEGER", "%lld", &Record::rx_rate),
    column("tx_total", "INTEGER", "%lld", &Record::tx_total),
    column("rx_total", "INTEGER", "%lld", &Record::rx_total),
    column("country_code", "TEXT", "'%q'", &Record::country_code),
    column("wan_ip", "TEXT", "'%q'", &Record::wan_ip),
    column("action", "INTEGER", "%d", &Record::action),
};

constexpr TableTraits traits{"conn_client_log", Storage::persistent, DeleteText::accumulates};
Table table(log_module, traits);

void notify(const LogSite& site, const Record& record) {
  const auto words = connection_words(site, zorv::kClientProtocols, record.vpn_type,
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
  zorv::nclog::notify_send(zorv::nc_msg(zorv::NcMsg::C002_0018),
                           timestamp(static_cast<long long>(record.time)).c_str(), uptime.c_str(),
                           record.username, words->protocol, record.vpn_ip,
                           placed ? record.wan_ip : kBlank, placed ? record.country_code : kBlank,
                           sent.c_str(), received.c_str(), words->status, nullptr);
}

}  // namespace

int create_conn_client_log_db() {
  return create(table, column_texts(columns));
}

int insert_conn_client_log(Record* record) {
  bound_texts(columns, *record);
  insert_row(table, insert_statement(table, columns, *record));
  notify(ZORV_HERE, *record);
  return 0;
}

int select_conn_client_log(const db_query_cond* cond, db_conn_client_log_query** out) {
  return select_records(table, columns, *cond, out);
}

int select_conn_client_log(const db_query_cond* cond, RowSpace& space,
                           db_conn_client_log_query& ret_head) {
  return select_records(table, columns, *cond, space, ret_head);
}

int delete_conn_client_log(const db_delete_cond* cond) {
  return delete_row(table, static_cast<record_uint64>(cond->id));
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
