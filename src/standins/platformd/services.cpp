#include "services.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <limits>
#include <span>
#include <utility>

#include "conf_file_lock.h"
#include "document.h"
#include "rooted.h"

namespace platformd {
namespace {

using nas::ConfFileLock;
using nas::ConfLock;

struct Method {
  const char* name;
  JsonRef (*call)(const json_t* request);  // null when the request was empty
};

std::string state_file = kStateFile;

// 0 for a regular file below the folder that is named plainly, or an errno number.
int refuse_config_file(const std::string& path) {
  const std::string folder = "/etc/config/";
  if (!path.starts_with(folder) || path.ends_with('/') ||
      std::filesystem::path(path).lexically_normal().native() != path) {
    return EPERM;
  }
  char real_folder[PATH_MAX];
  char real_path[PATH_MAX];
  struct stat status {};
  if (realpath(os::rooted(folder).c_str(), real_folder) == nullptr ||
      realpath(os::rooted(path).c_str(), real_path) == nullptr || stat(real_path, &status) != 0) {
    return errno;
  }
  if (real_folder + path.substr(folder.size() - 1) != real_path) {
    return ELOOP;
  }
  return S_ISREG(status.st_mode) ? 0 : S_ISDIR(status.st_mode) ? EISDIR : ENXIO;
}

JsonRef read_json(const json_t* request) {
  const char* const named = json_string_value(json_object_get(request, "path"));
  if (named == nullptr) {
    return failure(EINVAL, "no text \"path\"");
  }
  const std::string path = named;
  if (const int error = refuse_config_file(path); error != 0) {
    return failure(error, path + ": " + strerror(error));
  }
  const ConfFileLock lock(nas::lock_conf_file(named, ConfLock::read, kLockWait));
  return lock.held() ? read_document(path) : no_lock(path);
}

// The caller holds the state file's lock.
JsonRef read_state() {
  JsonRef state = read_document(state_file);
  if (json_integer_value(json_object_get(state.get(), "error")) == ENOENT) {
    return success(JsonRef(json_object()));
  }
  const json_t* data = json_object_get(state.get(), "data");
  return data == nullptr || json_is_object(data)
             ? std::move(state)
             : failure(EBADMSG, state_file + ": no JSON object");
}

// A member of the state, of the kind of `empty` and that where it is missing.
JsonRef read_member(const char* name, JsonRef empty) {
  const ConfFileLock lock(nas::lock_conf_file(state_file.c_str(), ConfLock::read, kLockWait));
  JsonRef state = lock.held() ? read_state() : no_lock(state_file);
  json_t* const data = json_object_get(state.get(), "data");
  if (data == nullptr) {
    return state;
  }
  json_t* const member = json_object_get(data, name);
  if (member == nullptr) {
    return success(std::move(empty));
  }
  return json_typeof(member) == json_typeof(empty.get())
             ? success(JsonRef(json_incref(member)))
             : failure(EBADMSG, state_file + ": \"" + name + "\" is of the wrong kind");
}

JsonRef list_devices(const json_t* request) {
  const json_t* const key = json_object_get(request, "key");
  if (key != nullptr && !json_is_string(key)) {
    return failure(EINVAL, "\"key\" is no text");
  }
  JsonRef devices = read_member("devices", JsonRef(json_object()));
  json_t* const all = json_object_get(devices.get(), "data");
  if (all == nullptr || key == nullptr) {
    return devices;
  }
  const char* const ifname = json_string_value(key);
  return success(JsonRef(json_pack("{s:O*}", ifname, json_object_get(all, ifname))));
}

JsonRef list_gateways(const json_t* /*request*/) {
  return read_member("gateways", JsonRef(json_array()));
}

JsonRef update_gateway(const json_t* /*request*/) {
  const ConfFileLock lock(nas::lock_conf_file(state_file.c_str(), ConfLock::write, kLockWait));
  JsonRef state = lock.held() ? read_state() : no_lock(state_file);
  json_t* const data = json_object_get(state.get(), "data");
  if (data == nullptr) {
    return state;
  }
  const json_t* const before = json_object_get(data, "update_vpn_gw");
  const json_int_t asked = json_integer_value(json_object_get(before, "count"));
  const json_int_t count = asked < std::numeric_limits<json_int_t>::max() ? asked + 1 : asked;
  json_object_set_new(
      data, "update_vpn_gw",
      json_pack("{s:I, s:I}", "count", count, "time", static_cast<json_int_t>(time(nullptr))));
  if (const int error = replace_document(state_file, data); error != 0) {
    return failure(error, state_file + ": " + strerror(error));
  }
  log_line("external_dev.update_vpn_gw: " + std::to_string(count) + " times asked");
  return success(nullptr);
}

JsonRef answer_request(const Method& method, kx_io* io) {
  size_t length = 0;
  const auto* const text = static_cast<const char*>(kx_io_read(io, &length));
  const JsonRef request(length > 0 ? json_loadb(text, length, 0, nullptr) : nullptr);
  return length == 0 || json_is_object(request.get())
             ? method.call(request.get())
             : failure(EINVAL, "the request is no JSON object");
}

int send_answer(kx_io* io, const JsonRef& answer) {
  const JsonText text = dump_json(answer.get(), JSON_COMPACT);
  return text != nullptr && kx_io_realloc(io, 0) == KX_SUCCESS &&
                 kx_io_write(io, text.get(), strlen(text.get())) == KX_SUCCESS
             ? kx_reply(io)
             : KX_IO_FAILURE;
}

void serve(std::span<const Method> methods, const char* name, kx_io* io, int fd) {
  if (fd >= 0) {
    close(fd);
  }
  for (const Method& method : methods) {
    if (strcmp(method.name, name) != 0) {
      continue;
    }
    const kx_io_owner owned(io);
    const JsonRef answer = answer_request(method, io);
    if (const char* text = json_string_value(json_object_get(answer.get(), "message"))) {
      log_line(std::string(name) + ": " + text);
    }
    if (send_answer(io, answer) != KX_SUCCESS) {
      log_line(std::string(name) + ": the answer could not be sent");
    }
    return;
  }
}

}  // namespace

void set_state_file(std::string path) {
  state_file = std::move(path);
}

void config_service_call(const char* method, kx_io* io, int fd) {
  constexpr Method kMethods[] = {{"read_json", read_json}};
  serve(kMethods, method, io, fd);
}

void network_service_call(const char* method, kx_io* io, int fd) {
  constexpr Method kMethods[] = {{"external_dev.list", list_devices},
                                 {"api.get_currentGWinfo", list_gateways},
                                 {"external_dev.update_vpn_gw", update_gateway}};
  serve(kMethods, method, io, fd);
}

void log_line(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == 0x7F) {
      c = '?';
    }
  }
  const time_t now = time(nullptr);
  tm local{};
  char stamp[32] = "";
  localtime_r(&now, &local);
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  dprintf(STDERR_FILENO, "%s platformd: %s\n", stamp, text.c_str());
}

}  // namespace platformd
