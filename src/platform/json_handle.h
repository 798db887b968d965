// A jansson value that is released at the end of its scope.
#pragma once

#include <jansson.h>

#include <memory>

namespace platform {

struct JsonRelease {
  void operator()(json_t* value) const { json_decref(value); }
};

using Json = std::unique_ptr<json_t, JsonRelease>;

}  // namespace platform
