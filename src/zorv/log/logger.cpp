#include "logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <string>
#include <string_view>

#include "rooted.h"

int __cur_level__ = static_cast<int>(LogLevel::debug);
int __cur_type__ = kLogToFile;
char __log_file__[256] = "/var/log/network/ZORV.log";

namespace {

const char* level_name(LogLevel level) {
  constexpr const char* kNames[] = {"DEBUG", "INFO", "WARN", "ERROR"};
  return kNames[static_cast<int>(level) / 10 - 1];
}

// The local time as a line shows it, put together once a second: doing it for each line costs 1 %
// of the line.
std::string_view stamp_of(time_t now) {
  struct Stamp {
    time_t second = 0;
    size_t length = 0;
    char text[32];
  };
  thread_local Stamp stamp;
  if (stamp.length == 0 || stamp.second != now) {
    tm local{};
    localtime_r(&now, &local);
    stamp.length = strftime(stamp.text, sizeof stamp.text, "%Y-%m-%d %H:%M:%S", &local);
    stamp.second = now;
  }
  return {stamp.text, stamp.length};
}

// A line in a buffer that fits nearly all of them; statement texts of long records spill to the
// heap. Its prefix is "TIME PID [LEVEL] MODULE [LINE] FUNCTION:".
class Line {
 public:
  __attribute__((format(printf, 4, 0)))
  Line(const LogSite& site, LogLevel level, const char* format, va_list arguments) {
    append(stamp_of(time(nullptr)));
    append(" ");
    append(getpid());
    append(" [");
    append(level_name(level));
    append("] ");
    append(site.module.name);
    append(" [");
    append(site.line);
    append("] ");
    append(site.function);
    append(":");
    va_list again;
    va_copy(again, arguments);
    const int wanted = vsnprintf(buffer_ + length_, sizeof buffer_ - length_, format, arguments);
    const size_t text = wanted < 0 ? 0 : static_cast<size_t>(wanted);
    if (text < sizeof buffer_ - length_) {
      length_ += text;
    } else {
      spill(text, format, again);
    }
    va_end(again);
  }

  const char* data() const { return spilled_.empty() ? buffer_ : spilled_.data(); }
  size_t size() const { return spilled_.empty() ? length_ : spilled_.size(); }

 private:
  void append(std::string_view text) {
    length_ += text.copy(buffer_ + length_, sizeof buffer_ - 1 - length_);
  }

  void append(int number) {
    char digits[16];
    append({digits, std::to_chars(digits, digits + sizeof digits, number).ptr});
  }

  // Without memory the line stays cut where the buffer ends.
  __attribute__((format(printf, 3, 0))) void spill(size_t text, const char* format,
                                                   va_list arguments) {
    try {
      spilled_.reserve(length_ + text + 1);
      spilled_.assign(buffer_, length_);
      spilled_.resize(length_ + text + 1);
      vsnprintf(spilled_.data() + length_, text + 1, format, arguments);
      spilled_.pop_back();
    } catch (const std::bad_alloc&) {
      spilled_.clear();
      length_ = sizeof buffer_ - 1;
    }
  }

  char buffer_[2048];
  size_t length_ = 0;
  std::string spilled_;
};

// Anybody may have put something in the file's place: a link to a file that is to be made, or a
// FIFO to be waited for.
int open_lock_file() {
  static const std::string path = os::rooted(kLogLockFile);
  return open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK,
              0777);
}

// A file of anybody else's would be locked by him for ever. Only a plain file of root's or of this
// user's counts, under one name.
int open_lock_file_to_hold() {
  const int fd = open_lock_file();
  struct stat about {};
  if (fd >= 0 && (fstat(fd, &about) != 0 || !S_ISREG(about.st_mode) || about.st_nlink != 1 ||
                  (about.st_uid != 0 && about.st_uid != geteuid()))) {
    close(fd);
    return -1;
  }
  return fd;
}

// Allocates nothing, so that lines about a lack of memory are written.
int open_log_file() {
  static const std::string& root = os::root();
  char path[PATH_MAX];
  const size_t length =
      __log_file__[0] == '/' ? root.copy(path, sizeof path - sizeof __log_file__) : 0;
  memcpy(path + length, __log_file__, sizeof __log_file__);
  return open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0666);
}

void append_to_log_file(const Line& line) {
  const int fd = open_log_file();
  if (fd < 0) {
    return;
  }
  // A full disk loses the line, like any other failure here.
  [[maybe_unused]] const ssize_t written = write(fd, line.data(), line.size());
  close(fd);
}

// In practice the lock is never taken: each line opens and closes the lock file. Only after a
// failed open does one descriptor stay open, and the next line then waits for the lock. Lines stay
// whole because each is one write().
void write_to_file(const LogSite& site, const Line& line) {
  struct flock record {};
  record.l_type = F_WRLCK;
  record.l_whence = SEEK_SET;

  int lock_fd = site.module._iot_lock_fd_.exchange(-1);
  const bool left_open_before = lock_fd != -1;
  if (left_open_before) {
    fcntl(lock_fd, F_SETLKW, &record);
  } else {
    lock_fd = open_lock_file();
  }
  append_to_log_file(line);
  if (lock_fd == -1) {
    lock_fd = open_lock_file_to_hold();
    const int left_open = site.module._iot_lock_fd_.exchange(lock_fd);
    if (left_open != -1) {
      close(left_open);
    }
  } else {
    if (left_open_before) {
      record.l_type = F_UNLCK;
      fcntl(lock_fd, F_SETLK, &record);
    }
    close(lock_fd);
  }
}

}  // namespace

void log_write(const LogSite& site, LogLevel level, const char* format, ...) {
  if (__cur_type__ != kLogToStdout && (__cur_type__ != kLogToFile || __log_file__[0] == '\0')) {
    return;
  }
  const int saved_errno = errno;
  va_list arguments;
  va_start(arguments, format);
  const Line line(site, level, format, arguments);
  va_end(arguments);
  if (__cur_type__ == kLogToStdout) {
    fwrite(line.data(), 1, line.size(), stdout);
  } else {
    try {
      write_to_file(site, line);
    } catch (const std::bad_alloc&) {
      // No memory for the paths that the first line makes: it is lost.
    }
  }
  errno = saved_errno;
}
