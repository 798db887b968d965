#include "zorv_api_db.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "logger.h"
#include "zorv_api_call.h"

using zorv_api::call;
using zorv_api::create_io;

namespace {

LogModule log_module{"zorv_api_db"};
constexpr const char* kSource = "zorv_api_db";

// The list functions below report nothing of a failed call: they return 0 and leave the result
// alone.
template <class Result>
int list(const LogSite& site, const kx_io_owner& io, const char* method, db_query_cond* cond,
         Result** result) {
  return zorv_api::query(io, method, *cond, *result, [&site](unsigned long long count) {
    ZORV_LOG_AT(site, debug, "query count = %llu", count);
  });
}

// A user name travels as its characters, without terminator.
int call_for_user(const kx_io_owner& io, const char* method, const char* username) {
  return call(io, method, username, std::strlen(username));
}

}  // namespace

int add_conn_server_log(db_conn_server_log* record) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "add_connection_insert\n");
  return call(io, "db_conn_insert", record, sizeof *record);
}

int list_conn_server_log(db_query_cond* cond, db_conn_server_log_query** result) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "list_conn_server_log\n");
  list(ZORV_HERE, io, "db_conn_server_log_query", cond, result);
  return 0;
}

int delete_conn_server_log(db_delete_cond* cond) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "delete_conn_server_log\n");
  return call(io, "db_conn_server_log_del", cond, sizeof *cond);
}

int clean_conn_server_log() {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "clean_conn_server_log\n");
  return call(io, "db_conn_server_log_clean");
}

int add_conn_client_log(db_conn_client_log_data* record) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "add_connection_insert\n");
  return call(io, "db_conn_client_log_insert", record, sizeof *record);
}

int list_conn_client_log(db_query_cond* cond, db_conn_client_log_query** result) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "list_conn_client_log\n");
  list(ZORV_HERE, io, "db_conn_client_log_query", cond, result);
  return 0;
}

int delete_conn_client_log(db_delete_cond* cond) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "delete_conn_client_log\n");
  return call(io, "db_conn_client_log_del", cond, sizeof *cond);
}

int clean_conn_client_log() {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "clean_conn_client_log\n");
  return call(io, "db_conn_client_log_clean");
}

int add_event_data(db_event_data* record) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "add_event_insert\n");
  return call(io, "db_event_insert", record, sizeof *record);
}

int list_event_data(db_query_cond* cond, db_event_query** result) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "list_event_data\n");
  list(ZORV_HERE, io, "db_event_query", cond, result);
  return 0;
}

int add_server_list(db_server_list_data* record) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "add_server_list_insert\n");
  return call(io, "db_server_list_insert", record, sizeof *record);
}

int list_server_list(db_query_cond* cond, db_server_list_query** result) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "list_server_list\n");
  list(ZORV_HERE, io, "db_server_list_query", cond, result);
  return 0;
}

int delete_server_list(db_delete_cond* cond) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "delete_server_list\n");
  return call(io, "db_server_list_del", cond, sizeof *cond);
}

int clean_server_list() {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "clean_server_list\n");
  return call(io, "db_server_list_clean");
}

int add_device_info(db_device_info_data* record, zorv_mobile_gen_uuid_data_get* uuid) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "add_device_info_insert\n");
  const int status = call(io, "db_device_info_insert", record, sizeof *record);
  size_t length = 0;
  const void* reply = status == KX_SUCCESS ? kx_io_read(io.get(), &length) : nullptr;
  if (reply != nullptr) {
    char text[sizeof uuid->zorv_uuid] = {};
    std::memcpy(text, reply, std::min(length, sizeof text - 1));
    std::strncpy(uuid->zorv_uuid, text, sizeof text);
  }
  return status;
}

int list_device_info(db_query_cond* cond, db_device_info_query** result) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "list_device_info\n");
  list(ZORV_HERE, io, "db_device_info_query", cond, result);
  return 0;
}

int delete_device_info(db_delete_cond* cond) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "delete_device_info\n");
  return call(io, "db_device_info_del", cond, sizeof *cond);
}

int clean_device_info() {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "clean_device_info\n");
  return call(io, "db_device_info_clean");
}

int add_privilege_user_block(char* username) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "add_privilege_user_block_insert\n");
  return call_for_user(io, "db_privilege_user_block_insert", username);
}

int list_privilege_user_block(db_query_cond* cond, db_privilege_user_block_query** result) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "list_privilege_user_block\n");
  const int status = list(ZORV_HERE, io, "db_privilege_user_block_query", cond, result);
  if (status != KX_SUCCESS) {
    ZORV_LOG(error, "kxh list_privilege_user_block, ret=%d", status);
  }
  return 0;
}

int delete_privilege_user_block(char* username) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "delete_privilege_user_block\n");
  return call_for_user(io, "db_privilege_user_block_del", username);
}

int check_privilege_user_block(char* username) {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "check_privilege_user_block\n");
  const int status = call_for_user(io, "db_privilege_user_block_check", username);
  if (status != KX_SUCCESS) {
    ZORV_LOG(error, "kxh check_privilege_user_block, ret=%d", status);
    return status;
  }
  // "0", "-1" and anything unexpected are all "not blocked": the caller never locks a user out
  // because the daemon could not read its policy.
  size_t length = 0;
  const auto* reply = static_cast<const char*>(kx_io_read(io.get(), &length));
  return reply != nullptr && std::string_view(reply, strnlen(reply, length)) == "1" ? 1 : 0;
}

int clean_privilege_user_block() {
  const kx_io_owner io = create_io(kSource, __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "clean_privilege_user_block\n");
  return call(io, "db_privilege_user_block_clean");
}
