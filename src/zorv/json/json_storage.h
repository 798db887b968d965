// What stands behind JsonValue::value, by tag. Private to the JSON value's sources.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "json.h"

namespace json_storage {

using Array = std::vector<JsonValue*>;
using Object = std::map<std::string, JsonValue*>;

template <class T>
T& as(void* value) {
  return *static_cast<T*>(value);
}

template <class T>
const T& as(const void* value) {
  return *static_cast<const T*>(value);
}

}  // namespace json_storage
