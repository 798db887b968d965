// The daemon's methods, called with what the tables declare: functions that tell how they ended.
//
// A call gives the bus's status, KX_SUCCESS (0) or another kx_status of kxbus.h; outputs are
// untouched unless it is 0. Nothing is logged and nothing is kept between calls, so they may be
// made from any thread at once. A call takes at most `timeout_ms`. The named functions of
// zorv_api_db.h are these with their lines in the log.
//
// A method more: a function here, or a named one in zorv_api_db.h, over call().
#pragma once

#include <cstdlib>
#include <memory>
#include <string_view>

#include "kxbus.h"
#include "zorv_schema.h"

namespace zorv_api {

inline constexpr int kTimeoutMs = 5000;  // of a whole call

// The buffer of one call, which frees it; null without memory, and the call then is KX_IO_FAILURE.
inline kx_io_owner new_buffer() {
  return kx_io_owner(kx_io_create());
}

// One call with `request` as its payload; the reply is then in `io`.
int call(const kx_io_owner& io, const char* method, const void* request = nullptr, size_t size = 0,
         int timeout_ms = kTimeoutMs);

struct FreeRecords {
  void operator()(void* records) const { std::free(records); }
};

// What a query found: `count` records one behind the other, of `total` rows in the table.
struct Rows {
  record_uint64 count = 0;
  record_uint64 total = 0;
  std::unique_ptr<void, FreeRecords> records;
  size_t record_size = 0;

  const void* record(record_uint64 index) const {
    return static_cast<const char*>(records.get()) + static_cast<size_t>(index) * record_size;
  }
};

// What `total` says when the daemon answered without having been able to read its table.
inline constexpr record_uint64 kTableUnread = ~0ULL;

int insert(const zorv::TableSchema& table, const void* record, kx_io_owner io = new_buffer(),
           int timeout_ms = kTimeoutMs);
// An answer that announces more records than it carries gives those that came.
int query(const zorv::TableSchema& table, const db_query_cond& cond, Rows& ret_rows,
          kx_io_owner io = new_buffer(), int timeout_ms = kTimeoutMs);
int remove(const zorv::TableSchema& table, record_int64 id, kx_io_owner io = new_buffer());
int clean(const zorv::TableSchema& table, kx_io_owner io = new_buffer());

// The UUID that the daemon keeps for the device's MAC address, terminated.
int insert_device(const db_device_info_data& device, zorv_mobile_gen_uuid_data_get& ret_uuid,
                  kx_io_owner io = new_buffer());
// A fresh UUID, its 36 bytes as they come; a shorter answer is KX_IO_FAILURE.
int make_uuid(const zorv_mobile_gen_uuid_data_set& request, zorv_mobile_gen_uuid_data_get& ret_uuid,
              kx_io_owner io = new_buffer());

// Failed logins of a user, who is named by characters without terminator.
int count_failure(std::string_view username, kx_io_owner io = new_buffer(),
                  int timeout_ms = kTimeoutMs);
int forget_failures(std::string_view username, kx_io_owner io = new_buffer(),
                    int timeout_ms = kTimeoutMs);

enum class BlockAnswer {
  not_blocked,
  blocked,
  unknown,  // the daemon could not read its policy, or said something else
};
int check_block(std::string_view username, BlockAnswer& ret_answer, kx_io_owner io = new_buffer(),
                int timeout_ms = kTimeoutMs);

}  // namespace zorv_api
