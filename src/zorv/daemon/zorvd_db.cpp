#include "zorvd_db.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "logger.h"
#include "zorv_records.h"
#include "zorvd_db_conn_client_handler.h"
#include "zorvd_db_device_info_handler.h"
#include "zorvd_db_event_handler.h"
#include "zorvd_db_handler.h"
#include "zorvd_db_list_handler.h"
#include "zorvd_db_privilege_user_block_handler.h"
#include "zorvd_mobile.h"

namespace {

LogModule log_module{"zorvd_db"};

// The steps that handlers share. Each ends a request one way: replied() or failed().

int replied(kx_io* io) {
  kx_reply(io);
  return 0;
}

int failed(const LogSite& site, kx_io* io, const char* call) {
  ZORV_LOG_AT(site, debug, "%s fail\n", call);
  kx_io_free(io);
  return -1;
}

int answer_empty(const LogSite& site, kx_io* io, int result, const char* call) {
  if (result != 0) {
    return failed(site, io, call);
  }
  kx_io_realloc(io, 0);
  return replied(io);
}

// What the caller sent; without it the request has failed.
std::optional<std::string_view> payload_of(const LogSite& site, kx_io* io) {
  size_t length = 0;
  const void* payload = kx_io_read(io, &length);
  if (payload == nullptr) {
    ZORV_LOG_AT(site, error, "%s: kx_io_read returned NULL\n", site.function);
    kx_io_free(io);
    return std::nullopt;
  }
  return std::string_view(static_cast<const char*>(payload), length);
}

// A short payload is a record with zeros behind it, a long one is cut.
template <class Record>
Record record_of(std::string_view payload) {
  Record record{};
  payload.copy(reinterpret_cast<char*>(&record), sizeof record);
  return record;
}

// The head of a query's answer, which owns its records.
template <class Query>
struct QueryResult : Query {
  QueryResult() : Query{} {}
  ~QueryResult() { std::free(static_cast<void*>(this->data)); }
  QueryResult(const QueryResult&) = delete;
  QueryResult& operator=(const QueryResult&) = delete;
};

// The rows of an answer, which go into the reply a block at a time: 520 MB exist once.
class ReplyRows final : public store::RowSpace {
 public:
  static constexpr size_t kBlock = 60 << 10;  // the bus gathers up to 64 KiB in one packet

  explicit ReplyRows(kx_io* io) : io_(io) {}

  void* next(size_t size) override {
    if (size > sizeof block_ - used_ && !write_out()) {
      return nullptr;
    }
    char* space = block_ + used_;
    used_ += size;
    return memset(space, 0, size);
  }

  // What the block still holds; false when the reply has no room for it.
  bool write_out() {
    const bool written = kx_io_write(io_, block_, used_) == KX_SUCCESS;
    used_ = 0;
    return written;
  }

 private:
  kx_io* io_;
  size_t used_ = 0;
  alignas(8) char block_[kBlock];
};

template <class Record>
int handle_insert(const LogSite& site, kx_io* io, int (*insert)(Record*), const char* call) {
  const auto payload = payload_of(site, io);
  if (!payload) {
    return -1;
  }
  auto record = record_of<Record>(*payload);
  return answer_empty(site, io, insert(&record), call);
}

template <class Query>
using Select = int (*)(const db_query_cond*, store::RowSpace&, Query&);

template <class Query>
int handle_query(const LogSite& site, kx_io* io, Select<Query> select, const char* announcement,
                 const char* call) {
  const auto payload = payload_of(site, io);
  if (!payload) {
    return -1;
  }
  const auto cond = record_of<db_query_cond>(*payload);
  ZORV_LOG_AT(site, debug, "%s\n", announcement);
  // The head is only known behind the rows, so its place is kept.
  Query head{};
  kx_io_realloc(io, 0);
  if (kx_io_write(io, &head, kQueryHeaderSize) != KX_SUCCESS) {
    return failed(site, io, "kx_io_write (io)");
  }
  static_assert(sizeof(typename Query::record_type) <= ReplyRows::kBlock);
  ReplyRows rows(io);
  if (select(&cond, rows, head) != 0 || !rows.write_out()) {
    return failed(site, io, call);
  }
  ZORV_LOG_AT(site, debug, "count = %llu\n", head.count);
  if (kx_io_overwrite(io, 0, &head, kQueryHeaderSize) != KX_SUCCESS) {
    return failed(site, io, "kx_io_write (io)");
  }
  return replied(io);
}

int handle_delete(const LogSite& site, kx_io* io, int (*remove)(const db_delete_cond*),
                  const char* call) {
  const auto payload = payload_of(site, io);
  if (!payload) {
    return -1;
  }
  const auto cond = record_of<db_delete_cond>(*payload);
  return answer_empty(site, io, remove(&cond), call);
}

// A user name is text: it ends at its first zero byte, or with the payload. None is the empty one.
std::string username_of(kx_io* io) {
  size_t length = 0;
  const auto* payload = static_cast<const char*>(kx_io_read(io, &length));
  return payload != nullptr ? std::string(payload, strnlen(payload, length)) : std::string();
}

}  // namespace

int db_conn_insert_handler(kx_io* io) {
  ZORV_LOG(info, "db_conn_server_log\n");
  return handle_insert(ZORV_HERE, io, store::insert_conn_server_log,
                       "insert_conn_server_log (&db_con)");
}

int db_conn_server_log_query_handler(kx_io* io) {
  ZORV_LOG(debug, "db_conn_server_log_query_imp\n");
  return handle_query(ZORV_HERE, io, store::select_conn_server_log, "select_conn_server_log()",
                      "select_conn_server_log (&cond, &con)");
}

int db_conn_server_delete_handler(kx_io* io) {
  ZORV_LOG(info, "db_conn_server_del_handler\n");
  return handle_delete(ZORV_HERE, io, store::delete_conn_server_log,
                       "delete_conn_server_log (&cond)");
}

int db_conn_server_clean_handler(kx_io* io) {
  ZORV_LOG(info, "db_conn_server_clean_handler\n");
  return answer_empty(ZORV_HERE, io, store::clean_conn_server_log(), "clean_conn_server_log ()");
}

int db_conn_client_log_insert_handler(kx_io* io) {
  ZORV_LOG(info, "db_client_conn_server_log\n");
  return handle_insert(ZORV_HERE, io, store::insert_conn_client_log,
                       "insert_conn_client_log (&db_con)");
}

int db_conn_client_log_query_handler(kx_io* io) {
  ZORV_LOG(debug, "db_conn_client_log_query_imp\n");
  return handle_query(ZORV_HERE, io, store::select_conn_client_log, "select_conn_client_log()",
                      "select_conn_client_log (&cond, &con)");
}

int db_conn_client_delete_handler(kx_io* io) {
  ZORV_LOG(info, "db_conn_client_delete_handler\n");
  return handle_delete(ZORV_HERE, io, store::delete_conn_client_log,
                       "delete_conn_client_log (&cond)");
}

int db_conn_client_clean_handler(kx_io* io) {
  ZORV_LOG(info, "db_conn_client_clean_handler\n");
  return answer_empty(ZORV_HERE, io, store::clean_conn_client_log(), "clean_conn_client_log ()");
}

// An event has no fields: the payload must be there, and nothing of it is used.
int db_event_insert_handler(kx_io* io) {
  ZORV_LOG(info, "db_event_data\n");
  if (!payload_of(ZORV_HERE, io)) {
    return -1;
  }
  db_event_data record;
  return answer_empty(ZORV_HERE, io, store::insert_event_data(&record),
                      "insert_event_data (&db_con)");
}

int db_event_query_handler(kx_io* io) {
  ZORV_LOG(debug, "db_event_query_imp\n");
  return handle_query(ZORV_HERE, io, store::select_event_data, "select_event_data()",
                      "select_event_data (&cond, &data)");
}

int db_server_list_insert_handler(kx_io* io) {
  ZORV_LOG(info, "db_server_list_data\n");
  return handle_insert(ZORV_HERE, io, store::insert_server_list, "insert_server_list (&db_con)");
}

int db_server_list_query_handler(kx_io* io) {
  ZORV_LOG(debug, "db_server_list_query_imp\n");
  return handle_query(ZORV_HERE, io, store::select_server_list, "select_server_list()",
                      "select_server_list (&cond, &data)");
}

int db_server_list_delete_handler(kx_io* io) {
  ZORV_LOG(info, "db_server_list_delete_handler\n");
  return handle_delete(ZORV_HERE, io, store::delete_server_list, "delete_server_list (&cond)");
}

int db_server_list_clean_handler(kx_io* io) {
  ZORV_LOG(info, "db_server_list_clean_handler\n");
  return answer_empty(ZORV_HERE, io, store::clean_server_list(), "clean_server_list ()");
}

int db_device_info_insert_handler(kx_io* io) {
  ZORV_LOG(info, "db_device_info_data\n");
  const auto payload = payload_of(ZORV_HERE, io);
  if (!payload) {
    return -1;
  }
  auto record = record_of<db_device_info_data>(*payload);
  zorv_mobile_gen_uuid_data_get answer{};
  if (zorv_uuid_gen(answer.zorv_uuid) != 0) {
    ZORV_LOG(debug, "zorv_uuid_gen failed\n");
  }
  // What the caller named as UUID is never looked at.
  std::memset(record.dev_uuid, 0, sizeof record.dev_uuid);
  std::memcpy(record.dev_uuid, answer.zorv_uuid, sizeof answer.zorv_uuid);
  if (store::insert_device_info(&record) != 0) {
    return failed(ZORV_HERE, io, "insert_device_info (&db_con)");
  }

  // The table may have kept an older UUID: read it back.
  db_query_cond cond{};
  cond.count = 1;
  std::memcpy(cond.field, "mac", sizeof "mac");
  std::memcpy(cond.value, record.mac, sizeof cond.value);
  QueryResult<db_device_info_query> result;
  db_device_info_query* out = &result;
  if (store::select_device_info(&cond, &out) != 0) {
    return failed(ZORV_HERE, io, "select_device_info (&cond, &data)");
  }
  ZORV_LOG(debug, "get count = %llu\n", result.count);
  answer = {};
  if (result.count != 0) {
    const db_device_info_data& kept = result.data[0];
    ZORV_LOG(debug, "get uuid = %s\n", kept.dev_uuid);
    ZORV_LOG(debug, "id = %lld\n", kept.id);
    std::memcpy(answer.zorv_uuid, kept.dev_uuid, sizeof answer.zorv_uuid - 1);
  }
  kx_io_realloc(io, 0);
  kx_io_write(io, &answer, sizeof answer);
  return replied(io);
}

int db_device_info_query_handler(kx_io* io) {
  ZORV_LOG(debug, "db_device_info_query_imp\n");
  return handle_query(ZORV_HERE, io, store::select_device_info, "select_device_info()",
                      "select_device_info (&cond, &data)");
}

int db_device_info_delete_handler(kx_io* io) {
  ZORV_LOG(info, "db_device_info_delete_handler\n");
  return handle_delete(ZORV_HERE, io, store::delete_device_info, "delete_device_info (&cond)");
}

int db_device_info_clean_handler(kx_io* io) {
  ZORV_LOG(info, "db_device_info_clean_handler\n");
  return answer_empty(ZORV_HERE, io, store::clean_device_info(), "clean_device_info ()");
}

int db_privilege_user_block_insert_handler(kx_io* io) {
  ZORV_LOG(info, "db_privilege_user_block\n");
  return answer_empty(ZORV_HERE, io, store::insert_privilege_user_block(username_of(io).c_str()),
                      "insert_privilege_user_block (username)");
}

int db_privilege_user_block_query_handler(kx_io* io) {
  ZORV_LOG(info, "db_privilege_user_block_query_imp\n");
  return handle_query(ZORV_HERE, io, store::select_privilege_user_block,
                      "select_privilege_user_block()", "select_privilege_user_block (&cond, &con)");
}

int db_privilege_user_block_delete_handler(kx_io* io) {
  ZORV_LOG(info, "db_privilege_user_block_delete_handler\n");
  return answer_empty(ZORV_HERE, io, store::delete_privilege_user_block(username_of(io).c_str()),
                      "delete_privilege_user_block (username)");
}

int db_privilege_user_block_clean_handler(kx_io* io) {
  ZORV_LOG(info, "db_privilege_user_block_clean_handler\n");
  return answer_empty(ZORV_HERE, io, store::clean_privilege_user_block(),
                      "clean_privilege_user_block ()");
}

// The entry text is the insert handler's.
int db_privilege_user_block_check_handler(kx_io* io) {
  ZORV_LOG(info, "db_privilege_user_block\n");
  const int result = store::check_privilege_user_block(username_of(io).c_str());
  ZORV_LOG(debug, "ret: %d\n", result);
  char digits[16];
  const int length = snprintf(digits, sizeof digits, "%d", result);
  kx_io_realloc(io, 0);
  kx_io_write(io, digits, static_cast<size_t>(length));
  return replied(io);
}
