#include "service.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "log.h"

namespace platformd {
namespace {

JsonRef answer_request(const Method& method, kx_io* io) {
  size_t length = 0;
  const auto* text = static_cast<const char*>(kx_io_read(io, &length));
  JsonRef request;
  if (text != nullptr && length > 0) {
    json_error_t error;
    request.reset(json_loadb(text, length, 0, &error));
    if (!json_is_object(request.get())) {
      return failure(EINVAL, "the request is no JSON object");
    }
  }
  return method.call(request.get());
}

int send_answer(kx_io* io, const JsonRef& answer) {
  const JsonText text = dump_json(answer.get(), JSON_COMPACT);
  if (text == nullptr || kx_io_realloc(io, 0) != KX_SUCCESS ||
      kx_io_write(io, text.get(), strlen(text.get())) != KX_SUCCESS) {
    return -1;
  }
  return kx_reply(io) == KX_SUCCESS ? 0 : -1;
}

}  // namespace

JsonRef success(JsonRef data) {
  JsonRef answer(json_pack("{s:i}", "error", 0));
  if (data != nullptr && json_object_set_new(answer.get(), "data", data.release()) != 0) {
    answer.reset();
  }
  return answer;
}

JsonRef failure(int error, const std::string& message) {
  return JsonRef(json_pack("{s:i, s:s}", "error", error, "message", message.c_str()));
}

void serve(std::span<const Method> methods, const char* method, kx_io* io, int fd) try {
  if (fd >= 0) {
    close(fd);
  }
  for (const Method& candidate : methods) {
    if (strcmp(candidate.name, method) != 0) {
      continue;
    }
    const kx_io_owner owned(io);
    const JsonRef answer = answer_request(candidate, io);
    if (json_integer_value(json_object_get(answer.get(), "error")) != 0) {
      log_line("%s: %s", method, json_string_value(json_object_get(answer.get(), "message")));
    }
    if (send_answer(io, answer) != 0) {
      log_line("%s: the answer could not be sent", method);
    }
    return;
  }
} catch (const std::bad_alloc&) {
  log_line("%s: out of memory", method);
}

}  // namespace platformd
