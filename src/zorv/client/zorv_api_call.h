// One call of one daemon method, as every client function makes it. Private to the client API.
#pragma once

// Release builds too have the C library report a failed assertion.
#undef NDEBUG
#include <cassert>
//
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "kxbus.h"
#include "zorv_api_db.h"

namespace zorv_api {

inline constexpr int kTimeoutSeconds = 5;
inline constexpr int kNoDescriptor = -1;

// A fresh buffer. Without one no call is possible and the process ends, in release builds too,
// naming `source` and the client function by its signature.
inline kx_io_owner create_io(const char* source, const char* signature,
                             unsigned line = static_cast<unsigned>(__builtin_LINE())) {
  kx_io_owner io(kx_io_create());
  if (io == nullptr) {
    __assert_fail("io != __null", source, line, signature);
  }
  return io;
}

inline int call(const kx_io_owner& io, const char* method) {
  return kx_call(kZorvdAddress, method, io.get(), kTimeoutSeconds, kNoDescriptor);
}

inline int call(const kx_io_owner& io, const char* method, const void* request, size_t size) {
  const int written = kx_io_write(io.get(), request, size);
  return written != KX_SUCCESS ? written : call(io, method);
}

// Asks for large pages behind an array that is about to be filled from end to end: the 130,000
// small ones of 520 MB would take as long to be had as the copying itself. A wish, not a need.
inline void prepare_for_filling(void* array, size_t size) {
  constexpr size_t kLargePage = size_t{2} << 20;
  if (size < 2 * kLargePage) {
    return;
  }
  std::align(kLargePage, kLargePage, array, size);
  madvise(array, size, MADV_HUGEPAGE);
}

// A query. Returns the call's status; *result is filled only when that is 0. The bytes that came
// are believed, not the count they announce: a reply that does not hold its records is
// KX_IO_FAILURE. on_count is called with the count before the rows are copied.
template <class Result, class OnCount>
int query(const kx_io_owner& io, const char* method, const db_query_cond& cond, Result* result,
          OnCount&& on_count) {
  using Record = typename Result::record_type;
  const int status = call(io, method, &cond, sizeof cond);
  if (status != KX_SUCCESS) {
    return status;
  }
  size_t length = 0;
  Result header;
  if (kx_io_read(io.get(), &length) == nullptr ||
      kx_io_copy(io.get(), 0, &header, kQueryHeaderSize) != KX_SUCCESS) {
    return KX_IO_FAILURE;
  }
  const size_t carried = (length - kQueryHeaderSize) / sizeof(Record);
  if (header.count > carried) {
    header.count = carried;
  }
  on_count(header.count);
  const auto count = static_cast<size_t>(header.count);
  const size_t size = count * sizeof(Record);
  void* const rows = calloc(count, sizeof(Record));
  if (rows == nullptr && count != 0) {
    return KX_IO_FAILURE;
  }
  prepare_for_filling(rows, size);
  if (kx_io_copy(io.get(), kQueryHeaderSize, rows, size) != KX_SUCCESS) {
    free(rows);
    return KX_IO_FAILURE;
  }
  header.data = static_cast<Record*>(rows);
  *result = header;
  return KX_SUCCESS;
}

}  // namespace zorv_api
