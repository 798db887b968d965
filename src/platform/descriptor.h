// A file descriptor that closes itself: the one owner, moved and never copied.
#pragma once

#include <unistd.h>

#include <utility>

namespace platform {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      reset(other.release());
    }
    return *this;
  }
  ~Descriptor() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    const int old = std::exchange(fd_, fd);
    if (old >= 0) {
      close(old);
    }
  }

 private:
  int fd_ = -1;
};

}  // namespace platform
