// notify: the stand-in for the NAS's notification tool.
//
//   notify send -A A238 -C CATEGORY -M MESSAGE_ID -l LEVEL -t 3 TEMPLATE APPNAME [VALUE...]
//
// Appends one JSON line per notification to kNotificationFile, written with one write(2) so that
// lines of several processes never mix, and hands the text to the system log. A line is an object
// with "time" (ISO 8601 local time with its offset), "category", "message_id", "level", "arguments"
// (an array of texts, APPNAME first) and "text".
//
// In TEMPLATE, {0} stands for APPNAME and {N}, one or two digits, for the N-th VALUE; a placeholder
// without a value stays as it is, and what comes out of a value is never a placeholder. Words are
// bytes: for JSON, each byte that is not part of a UTF-8 character becomes U+FFFD.
//
// Exit status: 0 done, 1 the line could not be written, 2 wrong command line.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <span>
#include <string>
#include <string_view>

#include "descriptor.h"
#include "json_ref.h"
#include "rooted.h"

namespace {

constexpr const char* kNotificationFile = "/var/log/network/notifications.jsonl";

// A longer text is cut: a template may name a long value many times.
constexpr size_t kLongestText = 1024UL * 1024;

constexpr const char* kUsage =
    "Usage: notify send -A A238 -C CATEGORY -M MESSAGE_ID -l LEVEL -t 3 TEMPLATE APPNAME "
    "[VALUE...]\n"
    "Keeps a notification in /var/log/network/notifications.jsonl and in the system log.\n"
    "LEVEL is info, warn or error; {0} in TEMPLATE is APPNAME, {1} the first VALUE.\n";

// The words before the template, in their places; an empty one is the caller's.
constexpr std::string_view kWords[] = {"",   "send", "-A", "A238", "-C", "",
                                       "-M", "",     "-l", "",     "-t", "3"};
enum Place { kCategory = 5, kMessageId = 7, kLevel = 9, kTemplate = 12, kApplicationName = 13 };

constexpr struct {
  std::string_view level;
  int priority;
} kLevels[] = {{"info", LOG_INFO}, {"warn", LOG_WARNING}, {"error", LOG_ERR}};

// The system log's priority for the notification that the words tell of, or -1 where they do not.
int priority_of(std::span<char*> words) {
  if (words.size() <= kApplicationName) {
    return -1;
  }
  for (size_t i = 0; i < std::size(kWords); ++i) {
    if (!kWords[i].empty() && words[i] != kWords[i]) {
      return -1;
    }
  }
  for (const auto& [level, priority] : kLevels) {
    if (words[kLevel] == level) {
      return priority;
    }
  }
  return -1;
}

std::string render(std::string_view message, std::span<char*> arguments) {
  std::string text;
  for (;;) {
    const size_t literal = std::min(message.find('{'), message.size());
    text += message.substr(0, literal);
    message.remove_prefix(literal);
    if (message.empty() || text.size() >= kLongestText) {
      return text.substr(0, kLongestText);
    }
    const size_t end = std::min(message.find_first_not_of("0123456789", 1), message.size());
    const bool numbered = (end == 2 || end == 3) && message.substr(end, 1) == "}";
    const size_t number = numbered ? std::stoul(std::string(message.substr(1, end - 1))) : 0;
    if (numbered && number < arguments.size()) {
      text += arguments[number];
      message.remove_prefix(end + 1);
    } else {
      text += '{';
      message.remove_prefix(1);
    }
  }
}

JsonRef text_value(std::string_view bytes) {
  JsonRef whole(json_stringn(bytes.data(), bytes.size()));
  if (whole != nullptr) {
    return whole;
  }
  // jansson takes nothing but UTF-8, so it tells which bytes are characters.
  std::string text;
  while (!bytes.empty()) {
    size_t length = std::min<size_t>(bytes.size(), 4);
    while (length > 0 && JsonRef(json_stringn(bytes.data(), length)) == nullptr) {
      --length;
    }
    text += length > 0 ? bytes.substr(0, length) : "\xEF\xBF\xBD";
    bytes.remove_prefix(std::max<size_t>(length, 1));
  }
  return JsonRef(json_stringn(text.data(), text.size()));
}

std::string iso_time() {
  const time_t now = time(nullptr);
  tm local{};
  char text[64];
  localtime_r(&now, &local);
  std::string iso(text, strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local));
  return iso.insert(iso.size() - 2, ":");  // "+0100" becomes "+01:00"
}

// One line with its newline, or "" without memory.
std::string json_line(std::span<char*> words, std::string_view text) {
  const JsonRef arguments(json_array());
  for (const char* const argument : words.subspan(kApplicationName)) {
    json_array_append_new(arguments.get(), text_value(argument).release());
  }
  const JsonRef line(json_pack(
      "{s:o, s:o, s:o, s:o, s:O, s:o}", "time", text_value(iso_time()).release(), "category",
      text_value(words[kCategory]).release(), "message_id", text_value(words[kMessageId]).release(),
      "level", text_value(words[kLevel]).release(), "arguments", arguments.get(), "text",
      text_value(text).release()));
  const JsonText dump = dump_json(line.get(), JSON_COMPACT);
  return dump != nullptr ? std::string(dump.get()) + '\n' : std::string();
}

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

int append(const std::string& line) {
  const std::string path = os::rooted(kNotificationFile);
  os::Descriptor file = open_for_append(path);
  if (!file.valid() && errno == ENOENT) {
    make_folders(path);
    file = open_for_append(path);
  }
  const ssize_t written = file.valid() ? write(file.get(), line.data(), line.size()) : -1;
  if (written == std::ssize(line)) {
    return 0;
  }
  fprintf(stderr, "notify: %s: %s\n", kNotificationFile,
          written < 0 ? strerror(errno) : "written in part");
  return 1;
}

void write_system_log(int priority, std::string text) {
  // A record has one line in the system log, whatever its values hold.
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == 0x7F) {
      c = ' ';
    }
  }
  openlog("notify", LOG_PID, LOG_DAEMON);
  syslog(priority, "%s", text.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  const std::span<char*> words(argv, static_cast<size_t>(argc));
  const int priority = priority_of(words);
  if (priority < 0) {
    fputs(kUsage, stderr);
    return 2;
  }
  const std::string text = render(words[kTemplate], words.subspan(kApplicationName));
  const std::string line = json_line(words, text);
  if (line.empty()) {
    fputs("notify: out of memory\n", stderr);
    return 1;
  }
  const int status = append(line);
  write_system_log(priority, text);
  return status;
}
