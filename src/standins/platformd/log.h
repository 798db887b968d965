// platformd's own log: lines on standard error, each written with one write. Any thread.
#pragma once

namespace platformd {

// Sends standard error to the end of `path` (plain, rooted when opened). 0, or -1 with errno.
int log_to_file(const char* path);

// One line with date and time; control characters in it are shown as '?'.
void log_line(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace platformd
