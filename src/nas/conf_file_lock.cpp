#include "conf_file_lock.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "descriptor.h"
#include "rooted.h"

namespace nas {
namespace {

using Clock = std::chrono::steady_clock;

constexpr off_t kGate = 0;
constexpr off_t kFile = 1;

constexpr auto kShortestPause = std::chrono::microseconds(100);
constexpr auto kLongestPause = std::chrono::microseconds(2000);

// No descriptor and no small number is ever taken for a handle.
constexpr int kFirstHandle = 1 << 20;

struct Slot {
  int fd = -1;      // -1: free
  int handle = -1;  // -1: still waiting
};

// Every descriptor is in the table from the moment it is open, so that a fork in another thread
// finds it there.
std::mutex table_mutex;
std::array<Slot, kMostConfLocks> table;
int next_handle = -1;

void seed_handles() {
  unsigned seed = 0;
  if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof seed)) {
    seed = static_cast<unsigned>(Clock::now().time_since_epoch().count()) ^
           static_cast<unsigned>(getpid());
  }
  next_handle = kFirstHandle + static_cast<int>(seed % (INT_MAX - kFirstHandle));
}

Slot* find_slot(int handle) {
  for (Slot& slot : table) {
    if (slot.fd >= 0 && slot.handle == handle) {
      return &slot;
    }
  }
  return nullptr;
}

int new_handle() {
  if (next_handle < 0) {
    seed_handles();
  }
  int handle = 0;
  do {
    handle = next_handle;
    next_handle = next_handle == INT_MAX ? kFirstHandle : next_handle + 1;
  } while (find_slot(handle) != nullptr);
  return handle;
}

void before_fork() {
  table_mutex.lock();
}

void after_fork_in_parent() {
  table_mutex.unlock();
}

// Closing the copies leaves the parent's locks alone; keeping them would keep those locks alive
// after the parent's death.
void after_fork_in_child() {
  for (Slot& slot : table) {
    if (slot.fd >= 0) {
      close(slot.fd);
      slot = Slot{};
    }
  }
  next_handle = -1;
  table_mutex.unlock();
}

// The lock file's name for `path`, or "" when it is not absolute.
std::string lock_file_name(std::string_view path) {
  if (path.empty() || path.front() != '/') {
    return {};
  }
  std::vector<std::string_view> components;
  while (!path.empty()) {
    const size_t slash = path.find('/');
    const std::string_view component = path.substr(0, slash);
    path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
    if (component == "..") {
      if (!components.empty()) {
        components.pop_back();
      }
    } else if (!component.empty() && component != ".") {
      components.push_back(component);
    }
  }
  std::string name;
  for (const std::string_view component : components) {
    name += "%2F";
    for (const char c : component) {
      if (c == '%') {
        name += "%25";
      } else {
        name += c;
      }
    }
  }
  return name.empty() ? "%2F" : name;
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

// A slot with the opened lock file, or null with errno.
Slot* open_slot(const std::string& name) {
  const os::Descriptor folder = open_lock_folder();
  if (!folder.valid()) {
    return nullptr;
  }
  const std::lock_guard<std::mutex> guard(table_mutex);
  for (Slot& slot : table) {
    if (slot.fd >= 0) {
      continue;
    }
    do {
      slot.fd = openat(folder.get(), name.c_str(),
                       O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    } while (slot.fd < 0 && errno == EINTR);
    return slot.fd >= 0 ? &slot : nullptr;
  }
  errno = EMFILE;
  return nullptr;
}

int lock_call(int fd, int command, struct flock& range) {
  int result = 0;
  do {
    result = fcntl(fd, command, &range);
  } while (result != 0 && errno == EINTR);
  return result;
}

struct flock one_byte(short type, off_t byte) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = byte;
  range.l_len = 1;
  return range;
}

int set_lock(int fd, short type, off_t byte) {
  struct flock range = one_byte(type, byte);
  return lock_call(fd, F_OFD_SETLK, range);
}

bool writer_at_gate(int fd) {
  struct flock range = one_byte(F_RDLCK, kGate);
  return lock_call(fd, F_OFD_GETLK, range) != 0 || range.l_type != F_UNLCK;
}

int await_lock(int fd, short type, off_t byte, Clock::time_point deadline) {
  auto pause = kShortestPause;
  while (set_lock(fd, type, byte) != 0) {
    if (errno != EAGAIN && errno != EACCES) {
      return -1;
    }
    if (Clock::now() >= deadline) {
      errno = ETIMEDOUT;
      return -1;
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, kLongestPause);
  }
  return 0;
}

// With no writer about, a reader only looks at the gate: twenty busy readers that each held it for
// a moment would keep a writer out for a second.
int acquire(int fd, ConfLock kind, Clock::time_point deadline) {
  if (kind == ConfLock::read && !writer_at_gate(fd) && set_lock(fd, F_RDLCK, kFile) == 0) {
    return 0;
  }
  const auto type = static_cast<short>(kind == ConfLock::write ? F_WRLCK : F_RDLCK);
  if (await_lock(fd, type, kGate, deadline) != 0 || await_lock(fd, type, kFile, deadline) != 0) {
    return -1;
  }
  return set_lock(fd, F_UNLCK, kGate);
}

// Unlocks before it closes: a child in the middle of its fork may have a copy of the descriptor.
void free_slot(Slot& slot) {
  set_lock(slot.fd, F_UNLCK, kGate);
  set_lock(slot.fd, F_UNLCK, kFile);
  close(slot.fd);
  slot = Slot{};
}

}  // namespace

int lock_conf_file(const char* path, ConfLock kind, std::chrono::milliseconds wait) try {
  [[maybe_unused]] static const int registered =
      pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
  const auto deadline = Clock::now() + wait;
  const std::string name = lock_file_name(path != nullptr ? path : "");
  if (name.empty()) {
    errno = EINVAL;
    return -1;
  }
  Slot* slot = open_slot(name);
  if (slot == nullptr) {
    return -1;
  }
  const int result = acquire(slot->fd, kind, deadline);
  const int reason = errno;
  const std::lock_guard<std::mutex> guard(table_mutex);
  if (result != 0) {
    free_slot(*slot);
    errno = reason;
    return -1;
  }
  slot->handle = new_handle();
  return slot->handle;
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

extern "C" int conf_file_unlock(int handle) {
  const std::lock_guard<std::mutex> guard(nas::table_mutex);
  nas::Slot* slot = handle >= 0 ? nas::find_slot(handle) : nullptr;
  if (slot == nullptr) {
    errno = EINVAL;
    return -1;
  }
  nas::free_slot(*slot);
  return 0;
}
