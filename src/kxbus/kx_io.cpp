#include "kx_io.h"

#include <memory>
#include <new>

#include "kx_transport.h"
#include "kxbus.h"

void kx_io::finish(int status) {
  if (caller.valid()) {
    kxbus::send_status(caller.get(), status);
    end_call();
  }
}

void kx_io::end_call() {
  if (of_stranger) {
    answered = std::move(caller);
  } else {
    caller.reset();
  }
}

kx_io* kx_io_create() {
  try {
    auto io = std::make_unique<kx_io>();
    return io->buffer.allocate() ? io.release() : nullptr;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

const void* kx_io_read(kx_io* io, size_t* ret_length) {
  const void* bytes = io != nullptr ? io->buffer.read() : nullptr;
  if (ret_length != nullptr) {
    *ret_length = bytes != nullptr ? io->buffer.size() : 0;
  }
  return bytes;
}

int kx_io_copy(kx_io* io, size_t offset, void* ret_bytes, size_t length) {
  if (io == nullptr || (ret_bytes == nullptr && length > 0)) {
    return KX_IS_INVALID;
  }
  return io->buffer.copy(offset, ret_bytes, length);
}

int kx_io_write(kx_io* io, const void* bytes, size_t length) {
  if (io == nullptr || (bytes == nullptr && length > 0)) {
    return KX_IS_INVALID;
  }
  return io->buffer.append(bytes, length);
}

int kx_io_overwrite(kx_io* io, size_t offset, const void* bytes, size_t length) {
  if (io == nullptr || (bytes == nullptr && length > 0)) {
    return KX_IS_INVALID;
  }
  return io->buffer.overwrite(offset, bytes, length);
}

int kx_io_realloc(kx_io* io, size_t size) {
  return io != nullptr ? io->buffer.resize(size) : KX_IS_INVALID;
}

int kx_reply(kx_io* io) {
  if (io == nullptr || !io->caller.valid()) {
    return KX_IS_INVALID;
  }
  if (io->of_stranger && !io->buffer.in_packet()) {
    if (io->buffer.size() > io->most_shared) {
      io->finish(KX_IS_BUSY);
      return KX_IS_BUSY;
    }
    io->shared = io->buffer.size();
  }
  const int status = kxbus::send_reply(io->caller.get(), io->buffer);
  io->end_call();
  return status;
}

void kx_io_free(kx_io* io) {
  if (io == nullptr) {
    return;
  }
  if (io->on_loan) {
    io->finish(KX_IS_REJECT);
  } else {
    const std::unique_ptr<kx_io> owned(io);
  }
}
