// Owners for what jansson hands out: a reference to a value, and the text of a dump.
#pragma once

#include <jansson.h>

#include <cstdlib>
#include <memory>

struct DropJsonRef {
  void operator()(json_t* json) const { json_decref(json); }
};
using JsonRef = std::unique_ptr<json_t, DropJsonRef>;

struct FreeJsonText {
  void operator()(char* text) const { free(text); }
};
using JsonText = std::unique_ptr<char, FreeJsonText>;

inline JsonText dump_json(const json_t* json, size_t flags = 0) {
  return JsonText(json_dumps(json, flags));
}

// For messages: a dump that failed reads as the empty text.
inline const char* text_or_empty(const JsonText& text) {
  return text != nullptr ? text.get() : "";
}
