#include "kx_address.h"

#include <cerrno>
#include <cstddef>

#include "rooted.h"

namespace kxbus {
namespace {

std::string_view service_of(std::string_view name) {
  name.remove_prefix(name.find_last_of('/') + 1);  // npos + 1 is 0
  if (name.size() > 5 && name.ends_with(".sock")) {
    name.remove_suffix(5);
  }
  return name;
}

}  // namespace

int resolve_address(const char* text, Address& ret_address) {
  std::string_view given = text != nullptr ? text : "";
  const bool path = given.starts_with('/');
  std::string_view before;
  std::string_view behind;
  if (given.starts_with('@')) {
    given.remove_prefix(1);
  } else if (!path && given.find('/') == std::string_view::npos) {
    before = "/var/run/";
    behind = ".sock";
  } else if (!path) {
    return EINVAL;  // a relative path would mean something else after a change of directory
  }
  if (given.empty() || given.ends_with('/')) {
    return EINVAL;
  }
  Address address;
  char* to = address.name.sun_path + (path ? 0 : 1);
  const std::string_view root = os::root();
  const std::size_t size = root.size() + before.size() + given.size() + behind.size();
  if (size > sizeof address.name.sun_path - 1) {
    return ENAMETOOLONG;
  }
  for (const std::string_view part : {root, before, given, behind}) {
    to += part.copy(to, part.size());
  }
  address.name.sun_family = AF_UNIX;
  address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + size);
  address.service = service_of(given);
  ret_address = address;
  return 0;
}

}  // namespace kxbus
