#include "permission.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <vector>

#include "rooted.h"

namespace zorvctl {
namespace {

constexpr const char* kDatabaseFile =
    "/etc/config/zorv/zorv.db";  // whoever runs the daemon made it
constexpr const char* kAllowFile = "/etc/config/kxbus/zorvd.allow";

bool is_daemon_of_root() {
  struct stat file {};
  return stat(os::rooted(kDatabaseFile).c_str(), &file) != 0 || file.st_uid == 0;
}

std::string own_name() {
  const passwd* const entry = getpwuid(geteuid());
  return entry != nullptr ? entry->pw_name : std::to_string(geteuid());
}

// By name or by number.
std::vector<std::string> own_groups() {
  std::vector<gid_t> ids(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
  ids.resize(static_cast<size_t>(std::max(getgroups(static_cast<int>(ids.size()), ids.data()), 0)));
  ids.push_back(getegid());
  std::vector<std::string> names;
  for (const gid_t id : ids) {
    names.push_back(std::to_string(id));
    if (const group* const entry = getgrgid(id)) {
      names.emplace_back(entry->gr_name);
    }
  }
  return names;
}

bool is_listed() {
  const std::vector<std::string> groups = own_groups();
  std::ifstream file(os::rooted(kAllowFile));
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line.substr(0, line.find('#')));
    std::string kind;
    std::string name;
    words >> kind >> name;
    const bool is_own_user =
        kind == "user" && (name == own_name() || name == std::to_string(geteuid()));
    const bool is_own_group =
        kind == "group" && std::find(groups.begin(), groups.end(), name) != groups.end();
    if (is_own_user || is_own_group) {
      return true;
    }
  }
  return false;
}

}  // namespace

std::string missing_permission() {
  if (geteuid() == 0 || !is_daemon_of_root() || is_listed()) {
    return "";
  }
  return fmt::format("not permitted: root must add 'user {}' to {}", own_name(),
                     os::rooted(kAllowFile));
}

}  // namespace zorvctl
