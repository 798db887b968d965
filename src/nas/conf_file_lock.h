// Locks for configuration files: many readers or one writer, between all processes and threads.
//
// The lock belongs to the path, not to the file: the file may be missing, truncated or replaced
// while it is locked, and is never touched here. Paths are absolute; "//" and "." and ".." are
// folded as text, links are not followed, so everyone must name a file by the same path.
//
// On disk each path has a file of its own in kConfLockFolder, named after the path with '/' and '%'
// as "%2F" and "%25". It is empty and never removed: whoever deletes one while it is locked lets a
// second writer in. The folder is made when missing and must belong to root or the caller and be
// writable to nobody else; only its owner can lock.
//
// A lock is a pair of one-byte open-file-description locks. Whoever comes passes the gate (byte 0;
// shared for a reader, exclusive for a writer), takes the file (byte 1) and leaves the gate; with
// no writer about, a reader takes the file at once. So a waiting writer keeps later readers out and
// is not starved by them, and readers that wait for a writer go before the next one. Within that
// there is no queue: waiting is asking again every millisecond or two.
//
// The kernel drops a holder's locks when it dies, however it dies. Descriptors are close-on-exec,
// and a forked child gives up its copies at once: a lock is not inherited and stays with the
// parent.
//
// A handle is not a descriptor: it is a number that this process does not use again for two
// thousand million locks, and that starts anywhere. A handle that is released, stale, or another
// process's is refused.
//
// Safe from any thread and across fork. Locks do not nest: a thread that holds one on a path and
// asks for another on it may wait for itself until the wait ends.
#pragma once

#include <chrono>
#include <utility>

// Wait at most nas::kConfLockWait. A handle >= 0, or -1 with errno: EINVAL (no absolute path),
// ENAMETOOLONG, ETIMEDOUT, EPERM (the lock folder is somebody else's), EMFILE or what the kernel
// says.
extern "C" int conf_file_read_lock(const char* path);
extern "C" int conf_file_write_lock(const char* path);

// 0, or -1 with errno EINVAL when this process holds no such lock.
extern "C" int conf_file_unlock(int handle);

namespace nas {

inline constexpr const char* kConfLockFolder = "/var/run/conf_file";

// Nothing that saves or loads settings takes seconds: who waits longer waits for a stuck process.
inline constexpr std::chrono::seconds kConfLockWait{30};

// Locks that one process holds or waits for at a time.
inline constexpr int kMostConfLocks = 256;

enum class ConfLock { read, write };

// As the functions above with a wait of the caller's choice; 0 asks once.
int lock_conf_file(const char* path, ConfLock kind, std::chrono::milliseconds wait);

// Releases a handle at the end of its scope.
class ConfFileLock {
 public:
  explicit ConfFileLock(int handle) : handle_(handle) {}
  ConfFileLock(ConfFileLock&& other) noexcept : handle_(std::exchange(other.handle_, -1)) {}
  ConfFileLock& operator=(ConfFileLock&&) = delete;
  ~ConfFileLock() {
    if (handle_ >= 0) {
      conf_file_unlock(handle_);
    }
  }

  bool held() const { return handle_ >= 0; }

 private:
  int handle_;
};

}  // namespace nas
