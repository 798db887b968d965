#include "regional_format.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "descriptor.h"
#include "rooted.h"

namespace nas {
namespace {

// The index is stored in users' settings: add at the end, never reorder.
using WriteDate = size_t (*)(char* text, size_t size, const tm* day);
constexpr WriteDate kDateFormats[] = {
    [](char* text, size_t size, const tm* day) { return strftime(text, size, "%Y-%m-%d", day); },
    [](char* text, size_t size, const tm* day) { return strftime(text, size, "%Y/%m/%d", day); },
    [](char* text, size_t size, const tm* day) { return strftime(text, size, "%Y.%m.%d", day); },
    [](char* text, size_t size, const tm* day) { return strftime(text, size, "%d-%m-%Y", day); },
    [](char* text, size_t size, const tm* day) { return strftime(text, size, "%d/%m/%Y", day); },
    [](char* text, size_t size, const tm* day) { return strftime(text, size, "%d.%m.%Y", day); },
    [](char* text, size_t size, const tm* day) { return strftime(text, size, "%m-%d-%Y", day); },
    [](char* text, size_t size, const tm* day) { return strftime(text, size, "%m/%d/%Y", day); },
    [](char* text, size_t size, const tm* day) { return strftime(text, size, "%m.%d.%Y", day); },
};

// A longer file is not a regional-settings file.
constexpr size_t kLargestFile = 4096;

std::string read_settings() {
  const os::Descriptor file(
      open(os::rooted(kRegionalFile).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::string content(kLargestFile + 1, '\0');
  const ssize_t length = read(file.get(), content.data(), content.size());
  content.resize(length > 0 && length <= ssize_t{kLargestFile} ? static_cast<size_t>(length) : 0);
  return content;
}

struct Setting {
  std::string key;  // "" where the line is no setting
  int value;        // -1 for one that is no number
};

// "KEY = VALUE", blanks as one likes.
Setting read_setting(const std::string& line) {
  char key[16] = "";
  char equals[2] = "";
  int value = 0;
  char rest = 0;
  const int items = sscanf(line.c_str(), " %15[a-z_] %1[=] %9d %c", key, equals, &value, &rest);
  return {items >= 2 ? key : "", items == 3 ? value : -1};
}

}  // namespace

std::string date_and_time(time_t when) {
  WriteDate write_date = kDateFormats[0];
  bool twelve_hours = false;
  const std::string settings = read_settings();
  size_t end = 0;
  for (size_t line = 0; line < settings.size(); line = end + 1) {
    end = std::min(settings.find('\n', line), settings.size());
    const Setting setting = read_setting(settings.substr(line, end - line));
    if (setting.key == "date_format") {
      const bool known = setting.value >= 0 && setting.value < std::ssize(kDateFormats);
      write_date = kDateFormats[known ? setting.value : 0];
    } else if (setting.key == "time_format") {
      twelve_hours = setting.value == 12;
    }
  }
  tm local{};
  if (localtime_r(&when, &local) == nullptr) {
    return " ";
  }
  char date[32] = "";  // a year has at most ten digits
  char time_of_day[32] = "";
  write_date(date, sizeof date, &local);
  if (twelve_hours) {
    strftime(time_of_day, sizeof time_of_day, "%I:%M:%S %p", &local);
  } else {
    strftime(time_of_day, sizeof time_of_day, "%H:%M:%S", &local);
  }
  return std::string(date) + " " + time_of_day;
}

}  // namespace nas
