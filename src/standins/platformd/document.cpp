#include "document.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "descriptor.h"
#include "rooted.h"

namespace platformd {

JsonRef success(JsonRef data) {
  return JsonRef(json_pack("{s:i, s:o*}", "error", 0, "data", data.release()));
}

JsonRef failure(int error, const std::string& message) {
  return JsonRef(json_pack("{s:i, s:s}", "error", error, "message", message.c_str()));
}

JsonRef no_lock(const std::string& path) {
  const int error = errno;
  return failure(error,
                 path + ": " +
                     (error == ETIMEDOUT ? "locked for too long"
                                         : std::string("cannot be locked: ") + strerror(error)));
}

JsonRef read_document(const std::string& path) {
  const os::Descriptor file(open(os::rooted(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  int error = file.valid() && fstat(file.get(), &status) == 0 ? 0 : errno;
  if (error == 0 && !S_ISREG(status.st_mode)) {
    error = S_ISDIR(status.st_mode) ? EISDIR : ENXIO;
  } else if (error == 0 && status.st_size > off_t{kLargestDocument}) {
    error = EFBIG;
  }
  std::string text(error == 0 ? static_cast<size_t>(status.st_size) : 0, '\0');
  const ssize_t length = error == 0 ? read(file.get(), text.data(), text.size()) : 0;
  if (length < 0) {
    error = errno;
  }
  if (error != 0) {
    return failure(error, path + ": " + strerror(error));
  }
  json_error_t where;
  JsonRef value(json_loadb(text.data(), static_cast<size_t>(length), 0, &where));
  return value != nullptr ? success(std::move(value))
                          : failure(EBADMSG, path + ": no JSON document, line " +
                                                 std::to_string(where.line) + ": " + where.text);
}

int replace_document(const std::string& path, const json_t* value) {
  const std::string target = os::rooted(path);
  const std::string fresh = target + ".new";
  const JsonText dump = dump_json(value, JSON_INDENT(2));
  if (dump == nullptr) {
    return ENOMEM;
  }
  const std::string text = std::string(dump.get()) + '\n';
  struct stat status {};
  const mode_t mode = stat(target.c_str(), &status) == 0 ? status.st_mode & 0777 : 0644;
  const os::Descriptor file(
      open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode));
  errno = file.valid() ? ENOSPC : errno;  // a write in part says nothing
  if (file.valid() && write(file.get(), text.data(), text.size()) == std::ssize(text) &&
      rename(fresh.c_str(), target.c_str()) == 0) {
    return 0;
  }
  const int error = errno;
  unlink(fresh.c_str());
  return error;
}

}  // namespace platformd
