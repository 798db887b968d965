#include "regional_format.h"

#include <fcntl.h>

#include <cstdio>
#include <iomanip>
#include <iterator>
#include <sstream>

#include "descriptor.h"
#include "rooted.h"

namespace nas {
namespace {

// The index is stored in users' settings: add at the end, never reorder.
constexpr const char* kDateFormats[] = {"%Y-%m-%d", "%Y/%m/%d", "%Y.%m.%d", "%d-%m-%Y", "%d/%m/%Y",
                                        "%d.%m.%Y", "%m-%d-%Y", "%m/%d/%Y", "%m.%d.%Y"};

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
  std::string format = kDateFormats[0];
  bool twelve_hours = false;
  std::istringstream settings(read_settings());
  for (std::string line; std::getline(settings, line);) {
    const Setting setting = read_setting(line);
    if (setting.key == "date_format") {
      const bool known = setting.value >= 0 && setting.value < std::ssize(kDateFormats);
      format = kDateFormats[known ? setting.value : 0];
    } else if (setting.key == "time_format") {
      twelve_hours = setting.value == 12;
    }
  }
  format += twelve_hours ? " %I:%M:%S %p" : " %H:%M:%S";
  tm local{};
  std::ostringstream text;
  if (localtime_r(&when, &local) == nullptr) {
    return " ";
  }
  text << std::put_time(&local, format.c_str());
  return text.str();
}

}  // namespace nas
