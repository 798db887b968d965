#include "spool_names.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <memory>

#include "descriptor.h"

namespace zorv::spool {

bool is_record_name(std::string_view name) {
  if (name.size() != kNameSize) {
    return false;
  }
  for (size_t index = 0; index < name.size(); ++index) {
    const bool is_dash = index == kTimeSize || index == kTimeSize + 11;
    if (is_dash ? name[index] != '-' : name[index] < '0' || name[index] > '9') {
      return false;
    }
  }
  return true;
}

int for_each_name(int folder, const std::function<bool(const std::string& name)>& take) {
  os::Descriptor own(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(own.valid() ? fdopendir(own.get()) : nullptr,
                                                   closedir);
  if (stream == nullptr) {
    return errno;
  }
  own.release();
  errno = 0;
  for (const dirent* entry = readdir(stream.get()); entry != nullptr;
       entry = readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != ".." && !take(name)) {
      return 0;
    }
    errno = 0;
  }
  return errno;
}

}  // namespace zorv::spool
