#include "login_policy.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include "service_call.h"

namespace zorv {

namespace {

using State = PolicyReading::State;

// The service's own words, without the file's name in front.
std::string message_of(const json_t* reply) {
  const char* const text = json_string_value(json_object_get(reply, "message"));
  std::string message = text != nullptr ? text : "";
  const std::string prefix = std::string(kLoginPolicyFile) + ": ";
  return message.starts_with(prefix) ? message.substr(prefix.size()) : message;
}

PolicyReading unread(const ServiceAnswer& answer) {
  const std::string service = std::string("the policy service ") + kLoginPolicyService;
  if (answer.status == KX_IS_REJECT) {
    return {State::refused, service + " failed, or does not serve this user"};
  }
  if (answer.status == KX_NOT_READY) {
    return {State::away, service + " is not running"};
  }
  if (answer.status != KX_SUCCESS && answer.status != KX_IS_INVALID) {
    return {State::away, service + " did not answer"};
  }
  if (answer.reply == nullptr) {
    return {State::failed, service + " gave no answer that can be used"};
  }
  if (answer.error == ENOENT || answer.error == ENOTDIR) {
    return {State::missing, "there is no such file"};
  }
  const std::string message = message_of(answer.reply.get());
  if (answer.error == EBADMSG) {
    return {State::broken, "the file is broken" + (message.empty() ? "" : ": " + message)};
  }
  return {State::failed, service + " cannot read the file: " +
                             (message.empty() ? "error " + std::to_string(answer.error) : message)};
}

const char* kind_of_json(const json_t* value) {
  switch (json_typeof(value)) {
    case JSON_OBJECT:
      return "an object";
    case JSON_ARRAY:
      return "an array";
    case JSON_STRING:
      return "a text";
    case JSON_INTEGER:
      return "a number";
    case JSON_REAL:
      return "a fraction";
    case JSON_TRUE:
    case JSON_FALSE:
      return "a boolean";
    case JSON_NULL:
      break;
  }
  return "null";
}

// What is said of one member, "" where it is as it should be.
std::string oddity(const json_t* policy, const char* name, bool is_right, const char* counts_as) {
  if (is_right) {
    return "";
  }
  const json_t* const value = json_object_get(policy, name);
  return std::string("\"") + name + "\" is " +
         (value != nullptr ? kind_of_json(value) : "missing") + " and counts as " + counts_as;
}

std::string oddities(const json_t* reply) {
  const json_t* const policy = json_object_get(json_object_get(reply, "data"), "global");
  if (!json_is_object(policy)) {
    return "it holds no object \"global\" and counts as off: nobody is blocked";
  }
  const auto is = [policy](const char* name, auto... types) {
    const json_t* const value = json_object_get(policy, name);
    return value != nullptr && ((json_typeof(value) == types) || ...);
  };
  const bool is_off = !json_is_true(json_object_get(policy, "enable"));
  // Of a policy that is off, members may be missing.
  const auto may_lack = [=](const char* name) {
    return is_off && json_object_get(policy, name) == nullptr;
  };
  std::string all;
  for (const std::string& one :
       {oddity(policy, "enable", is("enable", JSON_TRUE, JSON_FALSE), "false: nobody is blocked"),
        oddity(policy, "limit", is("limit", JSON_INTEGER) || may_lack("limit"),
               "0: any failed login blocks"),
        oddity(policy, "time", is("time", JSON_INTEGER, JSON_REAL) || may_lack("time"),
               "0: no block lasts")}) {
    all += (all.empty() || one.empty() ? "" : "; ") + one;
  }
  return all;
}

ServiceAnswer ask_service() {
  const JsonRef request(json_object());
  json_object_set_new(request.get(), "path", json_string(kLoginPolicyFile));
  const JsonText request_text = dump_json(request.get());
  return call_service(kLoginPolicyService, kLoginPolicyMethod, request_text.get());
}

}  // namespace

PolicyReading ask_login_policy() {
  const ServiceAnswer answer = ask_service();
  if (!answer.is_good()) {
    return unread(answer);
  }
  const json_t* const reply = answer.reply.get();
  return {State::read, oddities(reply), login_policy_of(reply)};
}

bool read_login_policy(LoginPolicy& ret_policy) {
  const ServiceAnswer answer = ask_service();
  if (answer.is_good()) {
    ret_policy = login_policy_of(answer.reply.get());
  }
  return answer.is_good();
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
