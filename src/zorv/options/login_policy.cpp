#include "login_policy.h"

#include <limits>

#include "global_options.h"
#include "json_ref.h"

namespace zorv {

bool read_login_policy(LoginPolicy& ret_policy) {
  const JsonRef request(json_object());
  json_object_set_new(request.get(), "path", json_string(kLoginPolicyFile));
  const JsonText request_text = dump_json(request.get());
  const JsonRef reply(easy_kx_call("vpncaas", "read_json", request_text.get()));
  if (reply == nullptr) {
    return false;
  }
  const json_t* const policy = json_object_get(json_object_get(reply.get(), "data"), "global");
  ret_policy.enabled = json_is_true(json_object_get(policy, "enable"));
  // The low 32 bits of the number in the file, as the NAS takes it.
  ret_policy.limit = static_cast<int>(json_integer_value(json_object_get(policy, "limit")));
  ret_policy.minutes = json_number_value(json_object_get(policy, "time"));
  return true;
}

uint64_t block_seconds(double minutes) {
  constexpr double kEnd = 18446744073709551616.0;  // 2^64
  const double seconds = minutes * 60.0;
  if (seconds >= kEnd) {
    return std::numeric_limits<uint64_t>::max();
  }
  return seconds > 0 ? static_cast<uint64_t>(seconds) : 0;
}

double seconds_since_failure(uint64_t timestamp, int64_t now) {
  return static_cast<double>(now - static_cast<int64_t>(timestamp & 0xffffffffU));
}

}  // namespace zorv
