// A call of another service of the bus, with everything that is known of its end: easy_kx_call() of
// global_options.h gives the good answers only.
#pragma once

#include "json_ref.h"
#include "kxbus.h"

namespace zorv {

struct ServiceAnswer {
  int status = KX_SUCCESS;  // of the bus
  json_int_t error = 0;     // where there is a reply: what the service put into "error"
  JsonRef reply{};          // an object with an integer "error"; null for any other answer

  bool is_good() const { return reply != nullptr && error == 0; }
};

// Blocks for at most five seconds and logs as easy_kx_call(). Any thread may call.
ServiceAnswer call_service(const char* service, const char* method, const char* args);

}  // namespace zorv
