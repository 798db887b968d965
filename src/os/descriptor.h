// A file descriptor that closes itself: the one owner, moved and never copied. -1 is "none".
#pragma once

#include <unistd.h>

#include <utility>

namespace os {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : descriptor_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      reset(other.release());
    }
    return *this;
  }
  ~Descriptor() { reset(); }

  int get() const { return descriptor_; }
  bool valid() const { return descriptor_ >= 0; }
  int release() { return std::exchange(descriptor_, -1); }
  void reset(int descriptor = -1) {
    const int old = std::exchange(descriptor_, descriptor);
    if (old >= 0) {
      close(old);
    }
  }

 private:
  int descriptor_ = -1;
};

}  // namespace os
