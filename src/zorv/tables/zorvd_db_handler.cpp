#include "zorvd_db_handler.h"

#include "nc_msg_db.h"
#include "zorvd_connection_words.h"
#include "zorvd_db_rows.h"
#include "zorvd_value_format.h"

namespace store {
namespace {

LogModule log_module{"zorvd_db_handler"};

using Record = db_conn_server_log;

constexpr std::tuple columns{
    column("username", "TEXT", "'%q'", &Record::username),
    column("vpn_type", "INTEGER", "%d", &Record::vpn_type),
    column("uptime", "INTEGER", "%llu", &Record::uptime),
    column("time", "INTEGER", "%llu", &Record::time),
    column("device_info", "TEXT", "'%q'", &Record::device_info),
    column("source_ip", "TEXT", "'%q'", &Record::source_ip),
    column("vpn_ip", "TEXT", "'%q'", &Record::vpn_ip),
    column("tx_rate", "INTEGER", "%lld", &Record::tx_rate),
    column("rx_rate", "INTEGER", "%lld", &Record::rx_rate),
    column("tx_total", "INTEGER", "%lld", &Record::tx_total),
    column("rx_total", "INTEGER", "%lld", &Record::rx_total),
    column("outgoing", "TEXT", "'%q'", &Record::outgoing),
    column("action", "INTEGER", "%d", &Record::action),
};

constexpr TableTraits traits{"conn_server_log", Storage::persistent, DeleteText::accumulates};
Table table(log_module, traits);

void notify(const LogSite& site, const Record& record) {
  std::string sent;
  std::string received;
  bytesToStr(record.tx_total, sent);
  bytesToStr(record.rx_total, received);
  const auto words = connection_words(site, zorv::kServerProtocols, record.vpn_type,
                                      zorv::kServerActions, record.action);
  if (!words) {
    return;
  }
  std::string uptime = kBlank;
  if (record.action == zorv::kLogout) {
    secondsToStr(static_cast<long long>(record.uptime), uptime);
  }
  const char* client_ip = record.action == zorv::kLoginFail ? kBlank : record.vpn_ip;
  zorv::nclog::notify_send(zorv::nc_msg(zorv::NcMsg::C001_0017),
                           timestamp(static_cast<long long>(record.time)).c_str(), uptime.c_str(),
                           record.username, record.source_ip, client_ip, sent.c_str(),
                           received.c_str(), words->protocol, words->status, nullptr);
}

}  // namespace

int create_conn_server_log_db() {
  return create(table, column_texts(columns));
}

int insert_conn_server_log(Record* record) {
  bound_texts(columns, *record);
  insert_row(table, insert_statement(table, columns, *record));
  notify(ZORV_HERE, *record);
  return 0;
}

int select_conn_server_log(const db_query_cond* cond, db_conn_server_log_query** out) {
  return select_records(table, columns, *cond, out);
}

int select_conn_server_log(const db_query_cond* cond, RowSpace& space,
                           db_conn_server_log_query& ret_head) {
  return select_records(table, columns, *cond, space, ret_head);
}

int delete_conn_server_log(const db_delete_cond* cond) {
  return delete_row(table, static_cast<record_uint64>(cond->id));
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
