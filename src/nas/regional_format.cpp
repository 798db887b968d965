#include "regional_format.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "descriptor.h"
#include "rooted.h"

namespace nas {
namespace {

constexpr bool names_each_part_once(std::string_view format) {
  int parts = 0;
  for (const char part : {'Y', 'M', 'D'}) {
    const size_t at = format.find(part);
    parts += at != std::string_view::npos && format.find(part, at + 1) == std::string_view::npos;
  }
  return parts == 3 && format.size() == 5;
}

constexpr bool formats_are_whole() {
  for (const char* format : kDateFormats) {
    if (!names_each_part_once(format)) {
      return false;
    }
  }
  return true;
}

static_assert(formats_are_whole());

struct Regional {
  int date_format = 0;
  int time_format = 24;
};

// A longer file is not a regional-settings file.
constexpr size_t kLargestFile = 4096;

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// The number that is the whole of `text`, or -1.
int whole_number(std::string_view text) {
  int number = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? number : -1;
}

void read_line(std::string_view line, Regional& regional) {
  const size_t equals = line.find('=');
  if (equals == std::string_view::npos) {
    return;
  }
  const std::string_view key = trimmed(line.substr(0, equals));
  const int value = whole_number(trimmed(line.substr(equals + 1)));
  if (key == "date_format") {
    regional.date_format = value >= 0 && value < std::ssize(kDateFormats) ? value : 0;
  } else if (key == "time_format") {
    regional.time_format = value == 12 ? 12 : 24;
  }
}

Regional read_regional() {
  Regional regional;
  const os::Descriptor file(
      open(os::rooted(kRegionalFile).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return regional;
  }
  char content[kLargestFile + 1];
  const ssize_t length = read(file.get(), content, sizeof content);
  if (length < 0 || static_cast<size_t>(length) > kLargestFile) {
    return regional;
  }
  std::string_view rest(content, static_cast<size_t>(length));
  while (!rest.empty()) {
    const size_t end = rest.find('\n');
    read_line(rest.substr(0, end), regional);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  return regional;
}

int copy_out(std::string_view text, char* ret_text, size_t size) {
  if (text.size() >= size) {
    return -1;
  }
  memcpy(ret_text, text.data(), text.size());
  ret_text[text.size()] = '\0';
  return 0;
}

}  // namespace

int current_date_format() {
  return read_regional().date_format;
}

int format_date(time_t when, int index, char* ret_text, size_t size) {
  tm local{};
  if (localtime_r(&when, &local) == nullptr) {
    return -1;
  }
  const bool known = index >= 0 && index < std::ssize(kDateFormats);
  char text[64];
  size_t length = 0;
  for (const char part : std::string_view(kDateFormats[known ? static_cast<size_t>(index) : 0])) {
    char* const end = text + length;
    const size_t room = sizeof text - length;
    int added = 1;
    if (part == 'Y') {
      added = snprintf(end, room, "%04lld", 1900LL + local.tm_year);
    } else if (part == 'M') {
      added = snprintf(end, room, "%02d", local.tm_mon + 1);
    } else if (part == 'D') {
      added = snprintf(end, room, "%02d", local.tm_mday);
    } else {
      *end = part;
    }
    length += static_cast<size_t>(added);
  }
  return copy_out({text, length}, ret_text, size);
}

int format_time(time_t when, char* ret_text, size_t size) {
  tm local{};
  if (localtime_r(&when, &local) == nullptr) {
    return -1;
  }
  char text[64];
  int length = 0;
  if (read_regional().time_format == 12) {
    const int hour = local.tm_hour % 12 == 0 ? 12 : local.tm_hour % 12;
    length = snprintf(text, sizeof text, "%02d:%02d:%02d %s", hour, local.tm_min, local.tm_sec,
                      local.tm_hour < 12 ? "AM" : "PM");
  } else {
    length =
        snprintf(text, sizeof text, "%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
  }
  return copy_out({text, static_cast<size_t>(length)}, ret_text, size);
}

}  // namespace nas
