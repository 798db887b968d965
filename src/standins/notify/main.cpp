// notify: the stand-in for the NAS's notification tool.
//
// Appends one JSON line per notification to kNotificationFile, written with one write(2) so that
// lines of several processes never mix, and hands the rendered text to the system log. The fields
// of a line and the command line: notification.h.
//
// Exit status: 0 done, 1 the line could not be written, 2 wrong command line.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>

#include "descriptor.h"
#include "notification.h"
#include "rooted.h"

namespace {

constexpr const char* kNotificationFile = "/var/log/network/notifications.jsonl";

constexpr const char* kUsage =
    "Usage: notify send -A A238 -C CATEGORY -M MESSAGE_ID -l LEVEL -t 3 TEMPLATE APPNAME "
    "[VALUE...]\n"
    "Keeps a notification in /var/log/network/notifications.jsonl and in the system log.\n"
    "LEVEL is info, warn or error; {0} in TEMPLATE is APPNAME, {1} the first VALUE.\n";

// Makes the folders that lead to `path`; a failure shows when the file is opened.
void make_folders(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0755);
  }
}

// Non-blocking, so that a FIFO in the file's place is an error instead of a hang.
os::Descriptor open_for_append(const std::string& path) {
  return os::Descriptor(
      open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0640));
}

int append(std::string_view line) {
  const std::string path = os::rooted(kNotificationFile);
  os::Descriptor file = open_for_append(path);
  if (!file.valid() && errno == ENOENT) {
    make_folders(path);
    file = open_for_append(path);
  }
  if (!file.valid()) {
    fprintf(stderr, "notify: %s: %s\n", kNotificationFile, strerror(errno));
    return -1;
  }
  ssize_t written = 0;
  do {
    written = write(file.get(), line.data(), line.size());
  } while (written < 0 && errno == EINTR);
  if (written != static_cast<ssize_t>(line.size())) {
    fprintf(stderr, "notify: %s: %s\n", kNotificationFile,
            written < 0 ? strerror(errno) : "written in part");
    return -1;
  }
  return 0;
}

void write_system_log(std::string_view level, std::string text) {
  // A record has one line in the system log, whatever its values hold.
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == 0x7F) {
      c = ' ';
    }
  }
  const int priority = level == "error" ? LOG_ERR : level == "warn" ? LOG_WARNING : LOG_INFO;
  openlog("notify", LOG_PID, LOG_DAEMON);
  syslog(priority, "%s", text.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  const auto notification = notify::parse_command_line(argc, argv);
  if (!notification) {
    fputs(kUsage, stderr);
    return 2;
  }
  std::string text = notify::render(*notification);
  const std::string line = notify::json_line(*notification, text, time(nullptr));
  if (line.empty()) {
    fputs("notify: out of memory\n", stderr);
    return 1;
  }
  const int result = append(line);
  write_system_log(notification->level, std::move(text));
  return result == 0 ? 0 : 1;
}
