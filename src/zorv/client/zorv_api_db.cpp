#include "zorv_api_db.h"

#include "zorv_api_caller.h"

using zorv::kClientLog;
using zorv::kDeviceInfo;
using zorv::kEventLog;
using zorv::kServerList;
using zorv::kServerLog;
using zorv::kUserBlock;
using zorv_api::Caller;

namespace {

LogModule log_module{"zorv_api_db"};

// The list functions report nothing of a failed call: they return 0 and leave the result alone.
template <class Result>
int list(const Caller& caller, const zorv::TableSchema& table, const db_query_cond* cond,
         Result** result) {
  zorv_api::Rows rows;
  const int status = zorv_api::query(table, *cond, rows, caller.begin());
  if (status == KX_SUCCESS) {
    ZORV_LOG_AT(caller.site, debug, "query count = %llu", rows.count);
    (*result)->count = rows.count;
    (*result)->total = rows.total;
    (*result)->data = static_cast<decltype((*result)->data)>(rows.records.release());
  }
  return status;
}

}  // namespace

int add_conn_server_log(db_conn_server_log* record) {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "add_connection_insert"};
  return zorv_api::insert(kServerLog, record, caller.begin());
}

int list_conn_server_log(db_query_cond* cond, db_conn_server_log_query** result) {
  list({ZORV_HERE, __PRETTY_FUNCTION__, "list_conn_server_log"}, kServerLog, cond, result);
  return 0;
}

int delete_conn_server_log(db_delete_cond* cond) {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "delete_conn_server_log"};
  return zorv_api::remove(kServerLog, cond->id, caller.begin());
}

int clean_conn_server_log() {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "clean_conn_server_log"};
  return zorv_api::clean(kServerLog, caller.begin());
}

int add_conn_client_log(db_conn_client_log_data* record) {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "add_connection_insert"};
  return zorv_api::insert(kClientLog, record, caller.begin());
}

int list_conn_client_log(db_query_cond* cond, db_conn_client_log_query** result) {
  list({ZORV_HERE, __PRETTY_FUNCTION__, "list_conn_client_log"}, kClientLog, cond, result);
  return 0;
}

int delete_conn_client_log(db_delete_cond* cond) {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "delete_conn_client_log"};
  return zorv_api::remove(kClientLog, cond->id, caller.begin());
}

int clean_conn_client_log() {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "clean_conn_client_log"};
  return zorv_api::clean(kClientLog, caller.begin());
}

int add_event_data(db_event_data* record) {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "add_event_insert"};
  return zorv_api::insert(kEventLog, record, caller.begin());
}

int list_event_data(db_query_cond* cond, db_event_query** result) {
  list({ZORV_HERE, __PRETTY_FUNCTION__, "list_event_data"}, kEventLog, cond, result);
  return 0;
}

int add_server_list(db_server_list_data* record) {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "add_server_list_insert"};
  return zorv_api::insert(kServerList, record, caller.begin());
}

int list_server_list(db_query_cond* cond, db_server_list_query** result) {
  list({ZORV_HERE, __PRETTY_FUNCTION__, "list_server_list"}, kServerList, cond, result);
  return 0;
}

int delete_server_list(db_delete_cond* cond) {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "delete_server_list"};
  return zorv_api::remove(kServerList, cond->id, caller.begin());
}

int clean_server_list() {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "clean_server_list"};
  return zorv_api::clean(kServerList, caller.begin());
}

int add_device_info(db_device_info_data* record, zorv_mobile_gen_uuid_data_get* uuid) {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "add_device_info_insert"};
  return zorv_api::insert_device(*record, *uuid, caller.begin());
}

int list_device_info(db_query_cond* cond, db_device_info_query** result) {
  list({ZORV_HERE, __PRETTY_FUNCTION__, "list_device_info"}, kDeviceInfo, cond, result);
  return 0;
}

int delete_device_info(db_delete_cond* cond) {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "delete_device_info"};
  return zorv_api::remove(kDeviceInfo, cond->id, caller.begin());
}

int clean_device_info() {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "clean_device_info"};
  return zorv_api::clean(kDeviceInfo, caller.begin());
}

int add_privilege_user_block(char* username) {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "add_privilege_user_block_insert"};
  return zorv_api::count_failure(username, caller.begin());
}

int list_privilege_user_block(db_query_cond* cond, db_privilege_user_block_query** result) {
  const int status =
      list({ZORV_HERE, __PRETTY_FUNCTION__, "list_privilege_user_block"}, kUserBlock, cond, result);
  if (status != KX_SUCCESS) {
    ZORV_LOG(error, "kxh list_privilege_user_block, ret=%d", status);
  }
  return 0;
}

int delete_privilege_user_block(char* username) {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "delete_privilege_user_block"};
  return zorv_api::forget_failures(username, caller.begin());
}

int check_privilege_user_block(char* username) {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "check_privilege_user_block"};
  auto answer = zorv_api::BlockAnswer::unknown;
  const int status = zorv_api::check_block(username, answer, caller.begin());
  if (status != KX_SUCCESS) {
    ZORV_LOG(error, "kxh check_privilege_user_block, ret=%d", status);
    return status;
  }
  // An unknown answer is "not blocked": nobody is locked out because the daemon could not read its
  // policy.
  return answer == zorv_api::BlockAnswer::blocked ? 1 : 0;
}

int clean_privilege_user_block() {
  const Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "clean_privilege_user_block"};
  return zorv_api::clean(kUserBlock, caller.begin());
}
