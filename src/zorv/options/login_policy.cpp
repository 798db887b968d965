#include "login_policy.h"

#include <algorithm>
#include <limits>

#include "global_options.h"
#include "json_ref.h"

namespace zorv {

bool read_login_policy(LoginPolicy& ret_policy) {
  const JsonRef request(json_object());
  json_object_set_new(request.get(), "path", json_string(kLoginPolicyFile));
  const JsonText request_text = dump_json(request.get());
  const JsonRef reply(easy_kx_call(kLoginPolicyService, kLoginPolicyMethod, request_text.get()));
  if (reply == nullptr) {
    return false;
  }
  ret_policy = login_policy_of(reply.get());
  return true;
}

LoginPolicy login_policy_of(const json_t* reply) {
  const json_t* const policy = json_object_get(json_object_get(reply, "data"), "global");
  using Limits = std::numeric_limits<int>;
  return {.enabled = json_is_true(json_object_get(policy, "enable")),
          .limit = static_cast<int>(std::clamp<json_int_t>(
              json_integer_value(json_object_get(policy, "limit")), Limits::min(), Limits::max())),
          .minutes = json_number_value(json_object_get(policy, "time"))};
}

uint64_t block_seconds(double minutes) {
  constexpr double kEnd = 18446744073709551616.0;  // 2^64
  const double seconds = minutes * 60.0;
  if (seconds >= kEnd) {
    return std::numeric_limits<uint64_t>::max();
  }
  return seconds > 0 ? static_cast<uint64_t>(seconds) : 0;
}

BlockVerdict block_verdict(const LoginPolicy& policy, int failures, uint64_t timestamp,
                           int64_t now) {
  if (!policy.enabled) {
    return {BlockState::off};
  }
  if (policy.limit > failures) {
    return {BlockState::counting};
  }
  const auto elapsed = static_cast<double>(now - static_cast<int64_t>(timestamp & 0xffffffffU));
  const auto block_time = static_cast<double>(block_seconds(policy.minutes));
  if (elapsed >= block_time) {
    return {BlockState::over};
  }
  constexpr double kLongest = 1e18;  // well inside 64 bits, and longer than anybody waits
  return {BlockState::blocked, static_cast<uint64_t>(std::min(block_time - elapsed, kLongest))};
}

}  // namespace zorv
