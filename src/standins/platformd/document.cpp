#include "document.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "rooted.h"

namespace platformd {
namespace {

using os::Descriptor;

Descriptor fail(int error) {
  errno = error;
  return Descriptor();
}

bool is_plain_name(std::string_view name) {
  return !name.empty() && name != "." && name != "..";
}

// The errno number of a status that is no regular file's, or 0.
int refused_kind(const struct stat& status) {
  if (S_ISREG(status.st_mode)) {
    return 0;
  }
  return S_ISLNK(status.st_mode) ? ELOOP : S_ISDIR(status.st_mode) ? EISDIR : ENXIO;
}

int write_whole(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      return errno;
    }
    text.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
  }
  return fsync(fd) == 0 ? 0 : errno;
}

// 0 or an errno number.
int read_whole(int fd, std::string& ret_text) {
  std::string text;
  char chunk[16384];
  for (;;) {
    const ssize_t got = read(fd, chunk, sizeof chunk);
    if (got == 0) {
      ret_text = std::move(text);
      return 0;
    }
    if (got < 0 && errno != EINTR) {
      return errno;
    }
    text.append(chunk, got > 0 ? static_cast<size_t>(got) : 0);
    if (text.size() > kLargestDocument) {
      return EFBIG;
    }
  }
}

}  // namespace

Document no_document(int error, std::string_view path, const std::string& reason) {
  return {nullptr, error, std::string(path) + ": " + reason};
}

Document no_lock(std::string_view path) {
  const int error = errno;
  return no_document(error, path,
                     error == ETIMEDOUT ? "locked for too long"
                                        : std::string("cannot be locked: ") + strerror(error));
}

Descriptor open_beneath(int folder, std::string_view path) {
  Descriptor inner;
  for (;;) {
    const int parent = inner.valid() ? inner.get() : folder;
    const size_t slash = path.find('/');
    const std::string name(path.substr(0, slash));
    if (!is_plain_name(name)) {
      return fail(EPERM);
    }
    struct stat status {};
    if (fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      return fail(errno);
    }
    if (slash == std::string_view::npos) {
      const int error = refused_kind(status);
      return error != 0 ? fail(error)
                        : Descriptor(openat(parent, name.c_str(),
                                            O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    }
    if (S_ISLNK(status.st_mode)) {
      return fail(ELOOP);
    }
    inner = Descriptor(openat(parent, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!inner.valid()) {
      return inner;
    }
    path.remove_prefix(slash + 1);
  }
}

Document parse_file(const Descriptor& file, std::string_view path) {
  struct stat status {};
  if (fstat(file.get(), &status) != 0) {
    return no_document(errno, path, strerror(errno));
  }
  int error = refused_kind(status);
  std::string text;
  if (error == 0) {
    error = read_whole(file.get(), text);
  }
  if (error != 0) {
    return no_document(error, path, strerror(error));
  }
  json_error_t where;
  JsonRef value(json_loadb(text.data(), text.size(), 0, &where));
  if (value == nullptr) {
    return no_document(EBADMSG, path,
                       "no JSON document, line " + std::to_string(where.line) + ": " + where.text);
  }
  return {std::move(value), 0, {}};
}

int replace_file(const std::string& path, const json_t* value) {
  const std::string target = os::rooted(path);
  const std::string fresh = target + ".new";
  const std::unique_ptr<char, decltype(&free)> text(json_dumps(value, JSON_INDENT(2)), &free);
  if (text == nullptr) {
    return ENOMEM;
  }
  struct stat status {};
  const mode_t mode = stat(target.c_str(), &status) == 0 ? status.st_mode & 0777 : 0644;
  const Descriptor file(open(
      fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
  if (!file.valid()) {
    return errno;
  }
  int error = write_whole(file.get(), std::string(text.get()) + '\n');
  if (error == 0 && rename(fresh.c_str(), target.c_str()) != 0) {
    error = errno;
  }
  if (error != 0) {
    unlink(fresh.c_str());
  }
  return error;
}

}  // namespace platformd
