#include "zorv_calls.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>

#include "zorv_api_db.h"

namespace zorv_api {
namespace {

// Asks for large pages behind an array that is about to be filled from end to end: the 130,000
// small ones of 520 MB would take as long to be had as the copying itself. A wish, not a need.
void prepare_for_filling(void* array, size_t size) {
  constexpr size_t kLargePage = size_t{2} << 20;
  if (size < 2 * kLargePage) {
    return;
  }
  std::align(kLargePage, kLargePage, array, size);
  madvise(array, size, MADV_HUGEPAGE);
}

std::string_view reply_text(const kx_io_owner& io) {
  size_t length = 0;
  const auto* const text = static_cast<const char*>(kx_io_read(io.get(), &length));
  return text != nullptr ? std::string_view(text, strnlen(text, length)) : std::string_view();
}

}  // namespace

int call(const kx_io_owner& io, const char* method, const void* request, size_t size,
         int timeout_ms) {
  if (io == nullptr) {
    return KX_IO_FAILURE;
  }
  const int written = size != 0 ? kx_io_write(io.get(), request, size) : KX_SUCCESS;
  if (written != KX_SUCCESS) {
    return written;
  }
  constexpr int kNoDescriptor = -1;
  // The platform's bus knows whole seconds only.
  return timeout_ms % 1000 == 0
             ? kx_call(kZorvdAddress, method, io.get(), timeout_ms / 1000, kNoDescriptor)
             : kx_call_ms(kZorvdAddress, method, io.get(), timeout_ms, kNoDescriptor);
}

int insert(const zorv::TableSchema& table, const void* record, kx_io_owner io, int timeout_ms) {
  return call(io, table.methods.insert, record, table.record_size, timeout_ms);
}

int query(const zorv::TableSchema& table, const db_query_cond& cond, Rows& ret_rows, kx_io_owner io,
          int timeout_ms) {
  if (const int status = call(io, table.methods.query, &cond, sizeof cond, timeout_ms);
      status != KX_SUCCESS) {
    return status;
  }
  size_t length = 0;
  record_uint64 head[kQueryHeaderSize / sizeof(record_uint64)];
  if (kx_io_read(io.get(), &length) == nullptr ||
      kx_io_copy(io.get(), 0, head, sizeof head) != KX_SUCCESS) {
    return KX_IO_FAILURE;
  }
  Rows rows;
  rows.record_size = table.record_size;
  // The bytes that came are believed, not the count they announce.
  const size_t carried = (length - kQueryHeaderSize) / table.record_size;
  rows.count = std::min<record_uint64>(head[0], carried);
  rows.total = head[1];
  const auto count = static_cast<size_t>(rows.count);
  rows.records.reset(calloc(count, table.record_size));
  if (rows.records == nullptr && count != 0) {
    return KX_IO_FAILURE;
  }
  const size_t size = count * table.record_size;
  prepare_for_filling(rows.records.get(), size);
  if (kx_io_copy(io.get(), kQueryHeaderSize, rows.records.get(), size) != KX_SUCCESS) {
    return KX_IO_FAILURE;
  }
  ret_rows = std::move(rows);
  return KX_SUCCESS;
}

int remove(const zorv::TableSchema& table, record_int64 id, kx_io_owner io) {
  const db_delete_cond cond{id};
  return call(io, table.methods.remove, &cond, sizeof cond);
}

int clean(const zorv::TableSchema& table, kx_io_owner io) {
  return call(io, table.methods.clean);
}

int insert_device(const db_device_info_data& device, zorv_mobile_gen_uuid_data_get& ret_uuid,
                  kx_io_owner io) {
  const int status = call(io, zorv::kDeviceInfo.methods.insert, &device, sizeof device);
  if (status == KX_SUCCESS) {
    zorv::copy_text(ret_uuid.zorv_uuid, reply_text(io));
  }
  return status;
}

int make_uuid(const zorv_mobile_gen_uuid_data_set& request, zorv_mobile_gen_uuid_data_get& ret_uuid,
              kx_io_owner io) {
  const int status = call(io, "zorv_mobile_gen_zorv_uuid", &request.type, sizeof request.type);
  if (status != KX_SUCCESS) {
    return status;
  }
  size_t length = 0;
  const void* const reply = kx_io_read(io.get(), &length);
  if (reply == nullptr || length < sizeof ret_uuid) {
    return KX_IO_FAILURE;
  }
  std::memcpy(&ret_uuid, reply, sizeof ret_uuid);
  return KX_SUCCESS;
}

int count_failure(std::string_view username, kx_io_owner io, int timeout_ms) {
  return call(io, zorv::kUserBlock.methods.insert, username.data(), username.size(), timeout_ms);
}

int forget_failures(std::string_view username, kx_io_owner io, int timeout_ms) {
  return call(io, zorv::kUserBlock.methods.remove, username.data(), username.size(), timeout_ms);
}

int check_block(std::string_view username, BlockAnswer& ret_answer, kx_io_owner io,
                int timeout_ms) {
  const int status =
      call(io, "db_privilege_user_block_check", username.data(), username.size(), timeout_ms);
  if (status == KX_SUCCESS) {
    const std::string_view answer = reply_text(io);
    ret_answer = answer == "1"   ? BlockAnswer::blocked
                 : answer == "0" ? BlockAnswer::not_blocked
                                 : BlockAnswer::unknown;
  }
  return status;
}

}  // namespace zorv_api
