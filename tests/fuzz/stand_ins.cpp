#include "stand_ins.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "detached_spawn.h"
#include "logger.h"
#include "rooted.h"

// In place of the library's: an archive is only searched for what is missing. Reads every argument
// to its end, as exec does.
void os::spawn_detached(const char* file, const char* const* arguments) {
  for (; *arguments != nullptr; ++arguments) {
    fuzz::require(strlen(file) > 0 && strlen(*arguments) < 1 << 20, "the tool has arguments");
  }
}

void fuzz::prepare() {
  require(!os::root().empty() && std::filesystem::is_directory(os::root()),
          "ZORV_ROOT names a folder; script/fuzz makes one");
  for (const char* folder : {"/etc/config/zorv", "/var/lock"}) {
    std::filesystem::create_directories(os::rooted(folder));
  }
  __cur_type__ = kLogToStdout;
  require(freopen("/dev/null", "w", stdout) != nullptr, "/dev/null can be written");
}

void fuzz::require(bool holds, const char* what) {
  if (!holds) {
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
  }
}

std::vector<std::string> fuzz::split(std::string_view input, char separator) {
  std::vector<std::string> parts;
  std::istringstream rest{std::string(input)};
  for (std::string part; std::getline(rest, part, separator);) {
    parts.push_back(part);
  }
  return parts.empty() ? std::vector<std::string>(1) : parts;
}
