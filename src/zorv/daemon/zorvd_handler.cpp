#include "zorvd_handler.h"

#include <unistd.h>

#include <new>

#include "logger.h"
#include "zorvd_db.h"

namespace {

LogModule log_module{"zorvd_handler"};

}  // namespace

MethodTable zorvd_method_list __attribute__((init_priority(101)));

__attribute__((constructor(102))) void zorv_method_init() {
  for (const Method& method : methods()) {
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
