// What the named client functions add to the calls of zorv_calls.h: their line in the log, and the
// end of the process where no buffer can be had. Private to the client API.
#pragma once

#include "logger.h"
#include "zorv_calls.h"

namespace zorv_api {

struct Caller {
  LogSite site;
  const char* signature;  // of the function, in full
  const char* entry;      // what it logs first

  // The buffer of the call. Without one no call is possible and the process ends with a failed
  // assertion, in release builds, too, that names the source and the function.
  kx_io_owner begin() const;
};

}  // namespace zorv_api
