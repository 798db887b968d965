#include "permission.h"

#include <fmt/format.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kx_callers.h"
#include "kxbus.h"
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

// Of a list that this user may not read nothing is known, and the bus would say so.
bool is_listed() {
  kx_set_log([](const char*) {});
  const bool listed = kxbus::listed_callers("zorvd").count(geteuid()) != 0;
  kx_set_log(nullptr);
  return listed;
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
