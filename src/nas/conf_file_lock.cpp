#include "conf_file_lock.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>
#include <string>
#include <string_view>
#include <thread>

#include "descriptor.h"
#include "rooted.h"

namespace nas {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPause{1};

std::string lock_file_name(std::string_view path) {
  std::string name;
  for (const char c : path) {
    if (c == '/') {
      name += "%2F";
    } else if (c == '%') {
      name += "%25";
    } else {
      name += c;
    }
  }
  return name;
}

os::Descriptor open_lock_folder() {
  mkdir(os::rooted("/var/run").c_str(), 0755);
  const std::string path = os::rooted(kConfLockFolder);
  mkdir(path.c_str(), 0700);
  os::Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!folder.valid() || fstat(folder.get(), &status) != 0) {
    return os::Descriptor();
  }
  const bool trusted = (status.st_uid == 0 || status.st_uid == geteuid()) &&
                       (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  if (!trusted) {
    errno = EPERM;
    return os::Descriptor();
  }
  return folder;
}

os::Descriptor open_lock_file(const std::string& name) {
  const os::Descriptor folder = open_lock_folder();
  return os::Descriptor(folder.valid()
                            ? openat(folder.get(), name.c_str(),
                                     O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600)
                            : -1);
}

int set_lock(int fd, short type) {
  struct flock whole_file {};
  whole_file.l_type = type;
  whole_file.l_whence = SEEK_SET;
  return fcntl(fd, F_OFD_SETLK, &whole_file);
}

}  // namespace

int lock_conf_file(const char* path, ConfLock kind, std::chrono::milliseconds wait) try {
  const auto deadline = Clock::now() + wait;
  if (path == nullptr || path[0] != '/') {
    errno = EINVAL;
    return -1;
  }
  os::Descriptor file = open_lock_file(lock_file_name(path));
  if (!file.valid()) {
    return -1;
  }
  while (set_lock(file.get(), kind == ConfLock::write ? F_WRLCK : F_RDLCK) != 0) {
    if (errno != EAGAIN && errno != EACCES) {
      return -1;
    }
    if (Clock::now() >= deadline) {
      errno = ETIMEDOUT;
      return -1;
    }
    std::this_thread::sleep_for(kPause);
  }
  return file.release();
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  return -1;
}

}  // namespace nas

extern "C" int conf_file_read_lock(const char* path) {
  return nas::lock_conf_file(path, nas::ConfLock::read, nas::kConfLockWait);
}

extern "C" int conf_file_write_lock(const char* path) {
  return nas::lock_conf_file(path, nas::ConfLock::write, nas::kConfLockWait);
}

// Unlocks before it closes: a child that is just being started may have a copy of the descriptor.
extern "C" int conf_file_unlock(int handle) {
  return nas::set_lock(handle, F_UNLCK) == 0 ? close(handle) : -1;
}
