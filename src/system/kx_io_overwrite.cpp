// For a libkxbus that has no such function: what it gives to be read may not be written, so the
// content is written anew. It stands in memory twice for as long.
#include <cstring>
#include <memory>
#include <new>

#include "kxbus.h"

int kx_io_overwrite(kx_io* io, size_t offset, const void* bytes, size_t length) {
  size_t there = 0;
  const void* content = kx_io_read(io, &there);
  if (length > there || offset > there - length) {
    return KX_IS_INVALID;
  }
  if (length == 0) {
    return KX_SUCCESS;
  }
  const std::unique_ptr<char[]> copy(new (std::nothrow) char[there]);
  if (copy == nullptr) {
    return KX_IO_FAILURE;
  }
  std::memcpy(copy.get(), content, there);
  std::memcpy(copy.get() + offset, bytes, length);
  const int emptied = kx_io_realloc(io, 0);
  return emptied != KX_SUCCESS ? emptied : kx_io_write(io, copy.get(), there);
}
