// The service bus: one request, one reply, between processes of one machine.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum kx_status {
  KX_SUCCESS = 0,
  KX_TIMEOUT = 1,
  KX_NOT_READY = 2,
  KX_IS_PAUSED = 3,
  KX_IS_REJECT = 4,
  KX_IO_FAILURE = 5,
  KX_IS_BUSY = 6,
  KX_IS_INVALID = 7,
};

typedef struct kx_io kx_io;
typedef struct kx_server kx_server;
typedef void (*kx_method_callback)(const char* method, kx_io* io, int fd);
typedef void (*kx_signal_callback)(int signal_number);
typedef void (*kx_log_callback)(const char* text);

kx_server* kx_create(const char* address, int backlog_units, int dispatchers,
                     kx_method_callback callback);
int kx_start(kx_server* server);
void kx_stop(kx_server* server);
void kx_free(kx_server* server);
int kx_signal(int signal_number, kx_signal_callback callback);
void kx_set_log(kx_log_callback callback);

int kx_call(const char* address, const char* method, kx_io* io, int timeout_s, int fd);

kx_io* kx_io_create(void);
const void* kx_io_read(kx_io* io, size_t* ret_length);
int kx_io_write(kx_io* io, const void* bytes, size_t length);
void* kx_io_extend(kx_io* io, size_t length);
int kx_io_overwrite(kx_io* io, size_t offset, const void* bytes, size_t length);
int kx_io_realloc(kx_io* io, size_t size);
int kx_reply(kx_io* io);
void kx_io_free(kx_io* io);

#ifdef __cplusplus
}
#endif
