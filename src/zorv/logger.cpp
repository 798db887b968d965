#include "logger.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#include "rooted.h"

int __cur_level__ = static_cast<int>(LogLevel::debug);
int __cur_type__ = kLogToFile;
char __log_file__[256] = "/var/log/network/ZORV.log";

namespace {

const char* level_name(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return "DEBUG";
    case LogLevel::info:
      return "INFO";
    case LogLevel::warn:
      return "WARN";
    case LogLevel::error:
      return "ERROR";
  }
  return "";
}

// A line in a buffer that fits nearly all of them; statement texts of long records spill to the
// heap.
class Line {
 public:
  __attribute__((format(printf, 4, 0)))
  Line(const LogSite& site, LogLevel level, const char* format, va_list arguments) {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    const int prefix = snprintf(buffer_, sizeof buffer_, "%s %d [%s] %s [%d] %s:", stamp, getpid(),
                                level_name(level), site.module.name, site.line, site.function);
    length_ = prefix < 0 ? 0 : static_cast<size_t>(prefix);
    if (length_ >= sizeof buffer_) {
      length_ = sizeof buffer_ - 1;
    }
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

int open_lock_file() {
  static const std::string path = platform::rooted(kLogLockFile);
  return open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0777);
}

void append_to_log_file(const Line& line) {
  static const bool is_rooted = !platform::root().empty();
  int fd = -1;
  if (is_rooted) {
    fd = open(platform::rooted(__log_file__).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC,
              0666);
  } else {
    fd = open(__log_file__, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  }
  if (fd < 0) {
    return;
  }
  // A full disk loses the line, like any other failure here.
  [[maybe_unused]] const ssize_t written = write(fd, line.data(), line.size());
  close(fd);
}

// The lock is awaited only when an earlier line left its descriptor open, which happens when the
// lock file could not be opened before that line but could after it. Normally the file is opened
// and closed once a line, and what keeps lines whole is the single write.
void write_to_file(const LogSite& site, const Line& line) {
  struct flock record {};
  record.l_type = F_WRLCK;
  record.l_whence = SEEK_SET;

  int lock_fd = site.module._iot_lock_fd_.exchange(-1);
  if (lock_fd == -1) {
    lock_fd = open_lock_file();
  } else {
    fcntl(lock_fd, F_SETLKW, &record);
  }
  append_to_log_file(line);
  if (lock_fd == -1) {
    lock_fd = open_lock_file();
    const int left_open = site.module._iot_lock_fd_.exchange(lock_fd);
    if (left_open != -1) {
      close(left_open);
    }
  } else {
    record.l_type = F_UNLCK;
    fcntl(lock_fd, F_SETLK, &record);
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
      // No memory for the rooted paths: the line is lost.
    }
  }
  errno = saved_errno;
}
