// What kxbus.h offers beyond the platform's own libkxbus, made of what that has. Weak: a library
// that brings them itself is used.
#include <cstring>

#include "kxbus.h"

namespace {

struct Content {
  char* bytes;
  size_t length;
};

Content content_of(kx_io* io) {
  size_t length = 0;
  const void* bytes = kx_io_read(io, &length);
  return {static_cast<char*>(const_cast<void*>(bytes)), bytes != nullptr ? length : 0};
}

char* part_of(kx_io* io, size_t offset, size_t length) {
  const Content content = content_of(io);
  const bool there = length <= content.length && offset <= content.length - length;
  return there ? content.bytes + offset : nullptr;
}

}  // namespace

// The platform's library has lines of its own.
__attribute__((weak)) void kx_set_log(kx_log_callback /*callback*/) {}

__attribute__((weak)) int kx_io_copy(kx_io* io, size_t offset, void* ret_bytes, size_t length) {
  const char* part = part_of(io, offset, length);
  if (part == nullptr) {
    return length == 0 ? KX_SUCCESS : KX_IS_INVALID;
  }
  std::memcpy(ret_bytes, part, length);
  return KX_SUCCESS;
}

__attribute__((weak)) void* kx_io_extend(kx_io* io, size_t length) {
  const size_t before = content_of(io).length;
  if (length == 0 || kx_io_realloc(io, before + length) != KX_SUCCESS) {
    return nullptr;
  }
  char* space = part_of(io, before, length);
  return space != nullptr ? std::memset(space, 0, length) : nullptr;
}

__attribute__((weak)) int kx_io_overwrite(kx_io* io, size_t offset, const void* bytes,
                                          size_t length) {
  char* part = part_of(io, offset, length);
  if (part == nullptr) {
    return length == 0 ? KX_SUCCESS : KX_IS_INVALID;
  }
  std::memcpy(part, bytes, length);
  return KX_SUCCESS;
}
