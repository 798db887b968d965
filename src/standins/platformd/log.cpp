#include "log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "descriptor.h"
#include "rooted.h"

namespace platformd {

int log_to_file(const char* path) {
  const os::Descriptor file(
      open(os::rooted(path).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC, 0640));
  return file.valid() && dup2(file.get(), STDERR_FILENO) >= 0 ? 0 : -1;
}

void log_line(const char* format, ...) {
  char line[1024];
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  const size_t stamp = strftime(line, sizeof line, "%Y-%m-%d %H:%M:%S platformd: ", &local);
  va_list arguments;
  va_start(arguments, format);
  const int text = vsnprintf(line + stamp, sizeof line - stamp, format, arguments);
  va_end(arguments);
  // The terminator's place serves the newline.
  const size_t length = std::min(stamp + static_cast<size_t>(std::max(text, 0)), sizeof line - 1);
  std::replace_if(
      line, line + length, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7F; },
      '?');
  line[length] = '\n';
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, length + 1);
}

}  // namespace platformd
