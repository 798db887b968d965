#include "file_tail.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

namespace zorvctl {
namespace {

constexpr size_t kBlock = 64 * 1024;

// Without O_NONBLOCK a FIFO in the file's place would be waited for.
int open_file(const std::string& path, os::Descriptor* ret) {
  os::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0) {
    return errno;
  }
  if (!S_ISREG(status.st_mode)) {
    return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  }
  *ret = std::move(file);
  return 0;
}

}  // namespace

int FileTail::open() {
  return open_file(path_, &file_);
}

off_t FileTail::size() const {
  struct stat status {};
  return fstat(file_.get(), &status) == 0 ? status.st_size : 0;
}

size_t FileTail::read(std::string* ret) {
  if (!file_.valid() && open() != 0) {
    return 0;
  }
  constexpr int kLooks = 3;  // at the old file, at its last line, at the new file
  size_t length = read_block(ret);
  for (int look = 1; length == 0 && look < kLooks && follow_rotation(); ++look) {
    length = read_block(ret);
  }
  return length;
}

bool FileTail::was_cut() {
  return std::exchange(cut_, false);
}

size_t FileTail::read_block(std::string* ret) {
  const size_t before = ret->size();
  ret->resize(before + kBlock);
  const ssize_t length = pread(file_.get(), ret->data() + before, kBlock, offset_);
  const size_t read = length > 0 ? static_cast<size_t>(length) : 0;
  ret->resize(before + read);
  offset_ += static_cast<off_t>(read);
  return read;
}

// Only called at the end of the file: what it held was read.
bool FileTail::follow_rotation() {
  struct stat ours {};
  struct stat named {};
  if (fstat(file_.get(), &ours) != 0) {
    return false;
  }
  if (ours.st_size < offset_) {
    offset_ = 0;
    cut_ = true;
    return true;
  }
  if (stat(path_.c_str(), &named) != 0 ||
      (named.st_dev == ours.st_dev && named.st_ino == ours.st_ino)) {
    return false;
  }
  os::Descriptor next;
  if (open_file(path_, &next) != 0) {
    return false;
  }
  // A last line may have come between the end and the new name.
  if (ours.st_size > offset_) {
    return true;
  }
  file_ = std::move(next);
  offset_ = 0;
  return true;
}

}  // namespace zorvctl
