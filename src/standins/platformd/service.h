// A service of the bus as a table of methods that take and give JSON.
//
// A request is empty or one JSON object. An answer is an object with an integer "error": 0 and the
// result under "data", or an errno number and a "message". A request that is neither is answered
// with EINVAL; an unknown method is left to the bus, which tells the caller so.
//
// Two services run at once, each on a thread of its own; a method is only called on its own
// service's.
#pragma once

#include <span>
#include <string>

#include "json_ref.h"
#include "kxbus.h"

namespace platformd {

// `request` is null when the request was empty. A null answer means no memory: the bus rejects.
using MethodCall = JsonRef (*)(const json_t* request);

struct Method {
  const char* name;
  MethodCall call;
};

JsonRef success(JsonRef data);
JsonRef failure(int error, const std::string& message);

// What a service's bus callback does. Takes over `fd` and, for a method of the table, `io`.
void serve(std::span<const Method> methods, const char* method, kx_io* io, int fd);

}  // namespace platformd
