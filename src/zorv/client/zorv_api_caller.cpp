// Release builds end with a failed assertion, too, and the header hides its function from them.
#undef NDEBUG

#include "zorv_api_caller.h"

#include <cassert>

namespace zorv_api {

kx_io_owner Caller::begin() const {
  kx_io_owner io = new_buffer();
  if (io == nullptr) {
    __assert_fail("io != __null", site.module.name, static_cast<unsigned>(site.line), signature);
  }
  ZORV_LOG_AT(site, debug, "%s\n", entry);
  return io;
}

}  // namespace zorv_api
