#include "zorvd_handler.h"

#include <unistd.h>

#include <iterator>
#include <new>

#include "logger.h"
#include "zorvd_db.h"
#include "zorvd_mobile.h"

namespace {

LogModule log_module{"zorvd_handler"};

struct Method {
  const char* name;  // as callers send it; not uniform, and kept so
  MethodHandler handler;
};

constexpr Method kMethods[] = {
    {"db_conn_insert", db_conn_insert_handler},
    {"db_conn_server_log_query", db_conn_server_log_query_handler},
    {"db_conn_server_log_clean", db_conn_server_clean_handler},
    {"db_conn_server_log_del", db_conn_server_delete_handler},
    {"db_conn_client_log_insert", db_conn_client_log_insert_handler},
    {"db_conn_client_log_query", db_conn_client_log_query_handler},
    {"db_conn_client_log_clean", db_conn_client_clean_handler},
    {"db_conn_client_log_del", db_conn_client_delete_handler},
    {"db_event_insert", db_event_insert_handler},
    {"db_event_query", db_event_query_handler},
    {"db_server_list_insert", db_server_list_insert_handler},
    {"db_server_list_query", db_server_list_query_handler},
    {"db_server_list_del", db_server_list_delete_handler},
    {"db_server_list_clean", db_server_list_clean_handler},
    {"db_device_info_insert", db_device_info_insert_handler},
    {"db_device_info_query", db_device_info_query_handler},
    {"db_device_info_del", db_device_info_delete_handler},
    {"db_device_info_clean", db_device_info_clean_handler},
    {"zorv_mobile_gen_zorv_uuid", zorv_mobile_gen_zorv_uuid},
    {"db_privilege_user_block_insert", db_privilege_user_block_insert_handler},
    {"db_privilege_user_block_query", db_privilege_user_block_query_handler},
    {"db_privilege_user_block_del", db_privilege_user_block_delete_handler},
    {"db_privilege_user_block_clean", db_privilege_user_block_clean_handler},
    {"db_privilege_user_block_check", db_privilege_user_block_check_handler},
};
static_assert(std::size(kMethods) == 24);

}  // namespace

MethodTable zorvd_method_list __attribute__((init_priority(101)));

__attribute__((constructor(102))) void zorv_method_init() {
  for (const Method& method : kMethods) {
    zorvd_method_list[method.name] = method.handler;
  }
}

void zorvd_method_handler(const char* method, kx_io* io, int fd) {
  if (fd >= 0) {
    close(fd);
  }
  const auto entry = zorvd_method_list.find(std::string_view(method));
  if (entry == zorvd_method_list.end()) {
    return;
  }
  try {
    if (entry->second(io) == 0) {
      kx_io_free(io);
    }
  } catch (const std::bad_alloc&) {
    // Thrown by the store, before the handler gave the buffer away.
    ZORV_LOG(error, "%s: out of memory\n", method);
    kx_io_free(io);
  }
}
