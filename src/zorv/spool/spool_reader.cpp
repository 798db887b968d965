#include "spool_reader.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <set>

#include "kx_callers.h"
#include "rooted.h"
#include "spool.h"
#include "spool_names.h"

namespace zorv::spool {
namespace {

constexpr size_t kMostNames = 2 * kMostRecords;
constexpr unsigned kMostComplaints = 10;
constexpr int kOpenFolder = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::optional<uid_t> user_of(const std::string& name) {
  uid_t user = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), user);
  const bool is_number = error == std::errc() && end == name.data() + name.size();
  return is_number && std::to_string(user) == name ? std::optional(user) : std::nullopt;
}

// Root, this user and whom the daemon's list names.
std::set<unsigned> allowed_callers() {
  std::set<unsigned> users = kxbus::listed_callers("zorvd");
  users.insert({0, geteuid()});
  return users;
}

const char* fault_of(const struct stat& about, uid_t owner) {
  return !S_ISREG(about.st_mode)               ? "not a plain file"
         : about.st_uid != owner               ? "not of the folder's user"
         : about.st_nlink != 1                 ? "has other links"
         : about.st_size > off_t{kLargestFile} ? "too large"
                                               : nullptr;
}

}  // namespace

uint64_t Entry::time() const {
  constexpr uint64_t kNanoseconds = 1'000'000'000;
  return std::stoull(name.substr(0, kTimeSize)) / kNanoseconds;
}

void SpoolReader::complain(uid_t owner, const std::string& path, const char* why) {
  const unsigned count = ++complaints_[owner];
  if (count < kMostComplaints) {
    complain_(path, why);
  } else if (count == kMostComplaints) {
    complain_(std::to_string(owner), "holds more that does not count");
  }
}

int SpoolReader::open_folder() {
  folder_.reset(open(os::rooted(kFolder).c_str(), kOpenFolder));
  struct stat about {};
  if (!folder_.valid() || fstat(folder_.get(), &about) != 0) {
    return errno;
  }
  const bool is_safe = (about.st_uid == 0 || about.st_uid == geteuid()) &&
                       (about.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  return is_safe ? 0 : EPERM;
}

int SpoolReader::open_to_list() {
  return open_folder();
}

int SpoolReader::open_to_deliver() {
  if (const int error = open_folder(); error != 0) {
    return error;
  }
  if (flock(folder_.get(), LOCK_EX | LOCK_NB) != 0) {
    return errno;
  }
  make_folders();
  return 0;
}

// Only root can give them away. Root's group may look into them and take files out, so that who
// delivers need not be able to pass over permissions.
void SpoolReader::make_folders() const {
  if (geteuid() != 0) {
    return;
  }
  for (const uid_t user : allowed_callers()) {
    const std::string name = std::to_string(user);
    if (mkdirat(folder_.get(), name.c_str(), 0700) == 0 || errno == EEXIST) {
      // Also where one that was killed in between has left it root's.
      [[maybe_unused]] const bool given =
          fchmodat(folder_.get(), name.c_str(), 0770, 0) == 0 &&
          fchownat(folder_.get(), name.c_str(), user, 0, AT_SYMLINK_NOFOLLOW) == 0;
    }
  }
}

std::vector<Entry> SpoolReader::entries() {
  const std::set<unsigned> callers = allowed_callers();
  std::vector<Entry> entries;
  for_each_name(folder_.get(), [&](const std::string& name) {
    const std::optional<uid_t> owner = user_of(name);
    if (!owner) {
      complain(0, name, "not a user's folder");
    } else if (callers.count(*owner) == 0) {
      complain(*owner, name, "the user may not call the daemon");
    } else {
      list_folder(*owner, entries);
    }
    return true;
  });
  std::sort(entries.begin(), entries.end(),
            [](const Entry& one, const Entry& other) { return one.name < other.name; });
  return entries;
}

void SpoolReader::list_folder(uid_t owner, std::vector<Entry>& entries) {
  const std::string path = std::to_string(owner);
  const os::Descriptor folder(openat(folder_.get(), path.c_str(), kOpenFolder));
  struct stat about {};
  if (!folder.valid() || fstat(folder.get(), &about) != 0) {
    complain(owner, path, std::strerror(errno));
    return;
  }
  if (about.st_uid != owner) {
    complain(owner, path, "not of the user that it is named for");
    return;
  }
  size_t seen = 0;
  const int error = for_each_name(folder.get(), [&](const std::string& name) {
    if (is_record_name(name)) {
      entries.push_back({owner, name});
    } else if (name.front() != kUnfinished) {
      complain(owner, path + "/" + name, "not a record's name");
    }
    return ++seen < kMostNames;
  });
  if (error != 0) {
    complain(owner, path, std::strerror(error));
  }
}

bool SpoolReader::read(const Entry& entry, Record& ret_record) {
  const std::string path = entry.path();
  const os::Descriptor file(openat(folder_.get(), path.c_str(),
                                   O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat about {};
  if (!file.valid() || fstat(file.get(), &about) != 0) {
    if (errno != ENOENT) {
      complain(entry.owner, path, errno == ELOOP ? "not a plain file" : std::strerror(errno));
    }
    return false;
  }
  const char* fault = fault_of(about, entry.owner);
  if (fault == nullptr) {
    char text[kLargestFile];
    const ssize_t length = ::read(file.get(), text, sizeof text);
    std::optional<Record> record =
        read_file_text({text, length > 0 ? static_cast<size_t>(length) : 0});
    if (record) {
      ret_record = std::move(*record);
      return true;
    }
    fault = "does not hold a whole record";
  }
  complain(entry.owner, path, fault);
  return false;
}

int SpoolReader::remove(const Entry& entry) const {
  return unlinkat(folder_.get(), entry.path().c_str(), 0) == 0 ? 0 : errno;
}

void SpoolReader::sync_removals() const {
  for_each_name(folder_.get(), [&](const std::string& name) {
    const os::Descriptor folder(openat(folder_.get(), name.c_str(), kOpenFolder));
    if (folder.valid()) {
      fsync(folder.get());
    }
    return true;
  });
}

}  // namespace zorv::spool
