// Where the records of a page go, one after the other.
#pragma once

#include <cstddef>

namespace store {

class RowSpace {
 public:
  // The next `size` bytes, zeroed and valid until the next call; null when there are none. Called
  // from within SQLite, so it must not throw.
  virtual void* next(size_t size) = 0;

 protected:
  ~RowSpace() = default;
};

}  // namespace store
