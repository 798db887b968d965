#include "spool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "descriptor.h"
#include "rooted.h"
#include "spool_file.h"
#include "spool_names.h"
#include "whole_file.h"

namespace zorv::spool {
namespace {

constexpr time_t kAbandonedAfter = 3600;  // seconds since a file that is not whole was written to

// No two records of one moment have one name.
std::string new_name() {
  static std::atomic<unsigned> count{0};
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  constexpr int64_t kNanoseconds = 1'000'000'000;
  char name[kNameSize + 1];
  std::snprintf(name, sizeof name, "%019" PRId64 "-%010u-%010u",
                now.tv_sec * kNanoseconds + now.tv_nsec, static_cast<unsigned>(getpid()), count++);
  return name;
}

int open_own_folder(os::Descriptor& ret_folder) {
  const uid_t user = geteuid();
  const std::string path = os::rooted(kFolder) + "/" + std::to_string(user);
  constexpr int kHow = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  os::Descriptor folder(open(path.c_str(), kHow));
  if (!folder.valid() && errno == ENOENT && mkdir(path.c_str(), 0700) == 0) {
    folder.reset(open(path.c_str(), kHow));
  }
  struct stat about {};
  if (!folder.valid() || fstat(folder.get(), &about) != 0) {
    return errno;
  }
  if (about.st_uid != user) {
    return EPERM;
  }
  ret_folder = std::move(folder);
  return 0;
}

// What a writer that was killed has left.
void remove_abandoned(int folder, const std::string& name) {
  struct stat about {};
  if (fstatat(folder, name.c_str(), &about, AT_SYMLINK_NOFOLLOW) == 0 &&
      std::time(nullptr) - about.st_mtime > kAbandonedAfter) {
    unlinkat(folder, name.c_str(), 0);
  }
}

// Room for one record more.
size_t drop_oldest(int folder) {
  std::vector<std::string> names;
  for_each_name(folder, [&](const std::string& name) {
    if (is_record_name(name)) {
      names.push_back(name);
    } else if (name.front() == kUnfinished && is_record_name(name.substr(1))) {
      remove_abandoned(folder, name);
    }
    return true;
  });
  if (names.size() < kMostRecords) {
    return 0;
  }
  const size_t surplus = names.size() - kMostRecords + 1;
  const auto end = names.begin() + static_cast<std::ptrdiff_t>(surplus);
  std::nth_element(names.begin(), end - 1, names.end());
  return static_cast<size_t>(std::count_if(names.begin(), end, [&](const std::string& name) {
    return unlinkat(folder, name.c_str(), 0) == 0;
  }));
}

int write_whole(int folder, const std::string& name, std::string_view text) {
  const os::Descriptor file(
      openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  // Whoever gets into the folder may read it: its user, and who delivers.
  if (!file.valid() || fchmod(file.get(), 0644) != 0) {
    return errno;
  }
  return os::write_all(file.get(), text) && fsync(file.get()) == 0 ? 0 : errno;
}

}  // namespace

int keep(const TableSchema& table, const void* record, size_t& ret_dropped) {
  os::Descriptor folder;
  if (const int error = open_own_folder(folder); error != 0) {
    return error;
  }
  const std::string name = new_name();
  const std::string unfinished = kUnfinished + name;
  size_t dropped = 0;
  int error = write_whole(folder.get(), unfinished, file_text(table, record));
  if (error == 0) {
    dropped = drop_oldest(folder.get());
    error = renameat(folder.get(), unfinished.c_str(), folder.get(), name.c_str()) == 0 &&
                    fsync(folder.get()) == 0
                ? 0
                : errno;
  }
  if (error != 0) {
    unlinkat(folder.get(), unfinished.c_str(), 0);
    return error;
  }
  ret_dropped = dropped;
  return 0;
}

}  // namespace zorv::spool
