// For a libkxbus that has no such function: the next whole second is waited for.
#include "kxbus.h"

int kx_call_ms(const char* address, const char* method, kx_io* io, int timeout_ms, int fd) {
  const int timeout_s = timeout_ms > 0 ? (timeout_ms - 1) / 1000 + 1 : timeout_ms;
  return kx_call(address, method, io, timeout_s, fd);
}
