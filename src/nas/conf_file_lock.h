// Locks for configuration files: many readers or one writer, between all processes and threads.
//
// The lock belongs to the path, not to the file: the file may be missing, truncated or replaced
// while it is locked, and is never touched here. Paths are absolute and compared as text, so
// everyone must name a file in the same way.
//
// Each path has a lock file of its own in kConfLockFolder, named after the path with '/' and '%' as
// "%2F" and "%25". It is empty and never removed: whoever deletes one while it is locked lets a
// second writer in. The folder is made when missing and must belong to root or the caller and be
// writable to nobody else; links are not followed.
//
// A lock is an open-file-description lock on that file and its handle is the descriptor, which is
// close-on-exec. Waiting is asking again every millisecond, so there is no queue; nobody should
// hold a lock for longer than it takes to read or write a file. The kernel drops the lock when its
// holder dies; a child forked meanwhile shares it until it executes a program or ends.
//
// Safe from any thread. Locks do not nest: a thread that holds one on a path and asks for another
// on it may wait for itself until the wait ends.
#pragma once

#include <chrono>

// Wait at most nas::kConfLockWait. A handle >= 0, or -1 with errno: EINVAL (no absolute path),
// ENAMETOOLONG, ETIMEDOUT, EPERM (the lock folder is somebody else's) or what the kernel says.
extern "C" int conf_file_read_lock(const char* path);
extern "C" int conf_file_write_lock(const char* path);

// 0, or -1 with errno when `handle` is no open descriptor.
extern "C" int conf_file_unlock(int handle);

namespace nas {

inline constexpr const char* kConfLockFolder = "/var/run/conf_file";

// Nothing that saves or loads settings takes seconds: who waits longer waits for a stuck process.
inline constexpr std::chrono::seconds kConfLockWait{30};

enum class ConfLock { read, write };

// As the functions above with a wait of the caller's choice; 0 asks once.
int lock_conf_file(const char* path, ConfLock kind, std::chrono::milliseconds wait);

// Releases a handle at the end of its scope.
class ConfFileLock {
 public:
  explicit ConfFileLock(int handle) : handle_(handle) {}
  ConfFileLock(const ConfFileLock&) = delete;
  ConfFileLock& operator=(const ConfFileLock&) = delete;
  ~ConfFileLock() {
    if (held()) {
      conf_file_unlock(handle_);
    }
  }

  bool held() const { return handle_ >= 0; }

 private:
  int handle_;
};

}  // namespace nas
