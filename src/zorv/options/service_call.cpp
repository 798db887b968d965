#include "service_call.h"

#include <cstring>
#include <utility>

#include "global_options.h"
#include "kxbus.h"
#include "logger.h"

namespace zorv {
namespace {

LogModule log_module{"global_options"};

constexpr int kTimeoutSeconds = 5;
constexpr int kNoDescriptor = -1;

// The answer is text and ends at its first zero byte, or with the reply.
JsonRef parse_reply(kx_io* io) {
  size_t length = 0;
  const auto* reply = static_cast<const char*>(kx_io_read(io, &length));
  if (reply == nullptr) {
    return nullptr;
  }
  return JsonRef(json_loadb(reply, strnlen(reply, length), 0, nullptr));
}

}  // namespace

// Everything is logged as the named function's, whoever calls.
ServiceAnswer call_service(const char* service, const char* method, const char* args) {
  const LogSite site{log_module, __LINE__, "easy_kx_call"};
  const char* const shown_args = args != nullptr ? args : "";
  ZORV_LOG_AT(site, debug, "kx_call %s.%s %s", service, method, shown_args);
  const kx_io_owner io(kx_io_create());
  if (io == nullptr) {
    ZORV_LOG_AT(site, error, "%s: kx_io_create failed", "easy_kx_call");
    return {.status = KX_IO_FAILURE};
  }
  int status = KX_SUCCESS;
  if (args != nullptr) {
    status = kx_io_write(io.get(), args, strlen(args));
  }
  if (status == KX_SUCCESS) {
    status = kx_call(service, method, io.get(), kTimeoutSeconds, kNoDescriptor);
  }
  if (status != KX_SUCCESS) {
    ZORV_LOG_AT(site, error, "%s: kx_call %s.%s %s failed", "easy_kx_call", service, method,
                shown_args);
    return {.status = status};
  }
  JsonRef root = parse_reply(io.get());
  if (!json_is_object(root.get())) {
    ZORV_LOG_AT(site, error, "%s: root isn't an object.", "easy_kx_call");
    return {};
  }
  const json_t* const error = json_object_get(root.get(), "error");
  if (!json_is_integer(error)) {
    ZORV_LOG_AT(site, error, "%s: val isn't an integer.", "easy_kx_call");
    return {};
  }
  const json_int_t number = json_integer_value(error);
  if (number != 0) {
    ZORV_LOG_AT(site, error, "%s: %s.%s %s failed", "easy_kx_call", service, method, shown_args);
  }
  return {.error = number, .reply = std::move(root)};
}

json_t* easy_kx_call(const char* service, const char* method, const char* args) {
  ServiceAnswer answer = call_service(service, method, args);
  return answer.is_good() ? answer.reply.release() : nullptr;
}

std::string get_profile_name(std::string ifname) {  // NOLINT(performance-unnecessary-value-param)
  const JsonRef request(json_object());
  json_object_set_new(request.get(), "key", json_string(ifname.c_str()));
  const JsonText request_text = dump_json(request.get());
  const JsonRef reply(easy_kx_call(kNetworkService, "external_dev.list", request_text.get()));
  if (reply == nullptr) {
    return {};
  }
  const json_t* const device =
      json_object_get(json_object_get(reply.get(), "data"), ifname.c_str());
  if (!json_is_object(device)) {
    ZORV_LOG(error, "%s: %s isn't an object.", "get_profile_name", ifname.c_str());
    return {};
  }
  const json_t* const profile = json_object_get(device, "profile");
  if (!json_is_string(profile)) {
    ZORV_LOG(error, "%s: profile isn't string.", "get_profile_name");
    return {};
  }
  return json_string_value(profile);
}

}  // namespace zorv
