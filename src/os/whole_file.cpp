#include "whole_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "descriptor.h"

namespace os {

bool write_all(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(descriptor, text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
  }
  return true;
}

bool sync_folder_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string name = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const Descriptor folder(open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder.valid() && fsync(folder.get()) == 0;
}

}  // namespace os
