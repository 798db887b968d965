// Where the records of a page go, one after the other.
#pragma once

#include <cstddef>

namespace store {

class RowSink {
 public:
  // Keeps a copy of the record; false when there is no room for it. Called from within SQLite, so
  // it must not throw.
  virtual bool put(const void* record, size_t size) = 0;

 protected:
  ~RowSink() = default;
};

}  // namespace store
