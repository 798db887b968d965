#include "config_service.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "conf_file_lock.h"
#include "document.h"
#include "rooted.h"
#include "service.h"

namespace platformd {
namespace {

constexpr std::string_view kFolder = "/etc/config/";

os::Descriptor open_config_file(const std::string& path) {
  if (!path.starts_with(kFolder)) {
    errno = EPERM;
    return {};
  }
  const os::Descriptor folder(open(os::rooted(kFolder).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid()) {
    return {};
  }
  return open_beneath(folder.get(), std::string_view(path).substr(kFolder.size()));
}

// Opened twice: only a file that exists is worth a lock file, and what is read must have been
// opened under the lock, for the one before it may have been replaced meanwhile.
Document read_config_file(const std::string& path) {
  if (!open_config_file(path).valid()) {
    return no_document(errno, path, strerror(errno));
  }
  const nas::ConfFileLock lock(nas::lock_conf_file(path.c_str(), nas::ConfLock::read, kLockWait));
  if (!lock.held()) {
    return no_lock(path);
  }
  const os::Descriptor file = open_config_file(path);
  return file.valid() ? parse_file(file, path) : no_document(errno, path, strerror(errno));
}

JsonRef read_json(const json_t* request) {
  const char* path = json_string_value(json_object_get(request, "path"));
  if (path == nullptr) {
    return failure(EINVAL, "no text \"path\"");
  }
  Document document = read_config_file(path);
  return document.error == 0 ? success(std::move(document.value))
                             : failure(document.error, document.message);
}

constexpr Method kMethods[] = {{"read_json", read_json}};

}  // namespace

void config_service_call(const char* method, kx_io* io, int fd) {
  serve(kMethods, method, io, fd);
}

}  // namespace platformd
