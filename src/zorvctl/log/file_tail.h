// What is appended to a file, while others rotate it: it may be renamed and made anew, or cut and
// written on.
#pragma once

#include <sys/types.h>

#include <string>

#include "descriptor.h"

namespace zorvctl {

class FileTail {
 public:
  explicit FileTail(std::string path) : path_(std::move(path)) {}

  // Opens the file at its beginning. 0, or why not: an errno; EINVAL for what is no file.
  int open();
  off_t size() const;
  void seek(off_t offset) { offset_ = offset; }
  int descriptor() const { return file_.get(); }

  // Appends what came next to *ret, a block at most. How many bytes that were, 0 for none so far.
  size_t read(std::string* ret);

  // Whether bytes may have gone unread since the last call: the file was cut.
  bool was_cut();

 private:
  size_t read_block(std::string* ret);
  bool follow_rotation();

  std::string path_;
  os::Descriptor file_;
  off_t offset_ = 0;
  bool cut_ = false;
};

}  // namespace zorvctl
