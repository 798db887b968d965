#include "network_service.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <utility>

#include "conf_file_lock.h"
#include "document.h"
#include "log.h"
#include "rooted.h"
#include "service.h"

namespace platformd {
namespace {

using nas::ConfFileLock;
using nas::ConfLock;
std::string state_file = kStateFile;

// The caller holds the state file's lock.
Document read_state() {
  const os::Descriptor file(
      open(os::rooted(state_file).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file.valid() && errno == ENOENT) {
    return {JsonRef(json_object()), 0, {}};
  }
  if (!file.valid()) {
    return no_document(errno, state_file, strerror(errno));
  }
  Document state = parse_file(file, state_file);
  if (state.error == 0 && !json_is_object(state.value.get())) {
    return no_document(EBADMSG, state_file, "no JSON object");
  }
  return state;
}

ConfFileLock lock_state(ConfLock kind) {
  return ConfFileLock(nas::lock_conf_file(state_file.c_str(), kind, kLockWait));
}

// A member of the state, of the kind that `make_empty` makes where it is missing.
Document read_member(const char* name, json_t* (*make_empty)()) {
  const ConfFileLock lock = lock_state(ConfLock::read);
  Document state = lock.held() ? read_state() : no_lock(state_file);
  if (state.error != 0) {
    return state;
  }
  JsonRef empty(make_empty());
  json_t* member = json_object_get(state.value.get(), name);
  if (member == nullptr) {
    return {std::move(empty), 0, {}};
  }
  if (json_typeof(member) != json_typeof(empty.get())) {
    return no_document(EBADMSG, state_file, std::string("\"") + name + "\" is of the wrong kind");
  }
  return {JsonRef(json_incref(member)), 0, {}};
}

JsonRef answer_with(Document document) {
  return document.error == 0 ? success(std::move(document.value))
                             : failure(document.error, document.message);
}

JsonRef list_devices(const json_t* request) {
  const json_t* key = json_object_get(request, "key");
  if (key != nullptr && !json_is_string(key)) {
    return failure(EINVAL, "\"key\" is no text");
  }
  Document devices = read_member("devices", json_object);
  if (devices.error == 0 && key != nullptr) {
    JsonRef one(json_object());
    const char* ifname = json_string_value(key);
    if (json_t* device = json_object_get(devices.value.get(), ifname)) {
      json_object_set(one.get(), ifname, device);
    }
    devices.value = std::move(one);
  }
  return answer_with(std::move(devices));
}

JsonRef list_gateways(const json_t* /*request*/) {
  return answer_with(read_member("gateways", json_array));
}

JsonRef update_gateway(const json_t* /*request*/) {
  const ConfFileLock lock = lock_state(ConfLock::write);
  const Document state = lock.held() ? read_state() : no_lock(state_file);
  if (state.error != 0) {
    return failure(state.error, state.message);
  }
  const json_t* before = json_object_get(state.value.get(), "update_vpn_gw");
  const json_int_t asked = json_integer_value(json_object_get(before, "count"));
  const json_int_t count = asked < std::numeric_limits<json_int_t>::max() ? asked + 1 : asked;
  json_object_set_new(
      state.value.get(), "update_vpn_gw",
      json_pack("{s:I, s:I}", "count", count, "time", static_cast<json_int_t>(time(nullptr))));
  if (const int error = replace_file(state_file, state.value.get()); error != 0) {
    return failure(error, state_file + ": " + strerror(error));
  }
  log_line("external_dev.update_vpn_gw: %lld times asked", static_cast<long long>(count));
  return success(nullptr);
}

constexpr Method kMethods[] = {{"external_dev.list", list_devices},
                               {"api.get_currentGWinfo", list_gateways},
                               {"external_dev.update_vpn_gw", update_gateway}};

}  // namespace

void set_state_file(std::string path) {
  state_file = std::move(path);
}

void network_service_call(const char* method, kx_io* io, int fd) {
  serve(kMethods, method, io, fd);
}

}  // namespace platformd
