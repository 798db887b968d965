#include "kx_address.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "rooted.h"

namespace kxbus {
namespace {

std::string service_of(std::string_view name) {
  name.remove_prefix(name.find_last_of('/') + 1);  // npos + 1 is 0
  if (name.size() > 5 && name.ends_with(".sock")) {
    name.remove_suffix(5);
  }
  return std::string(name);
}

}  // namespace

int resolve_address(const char* text, Address& ret_address) {
  const std::string_view given = text != nullptr ? text : "";
  const bool abstract = !given.starts_with('/');
  std::string name;
  if (given.starts_with('@')) {
    name = given.substr(1);
  } else if (abstract && !given.empty() && given.find('/') == std::string_view::npos) {
    name = "/var/run/" + std::string(given) + ".sock";
  } else if (!abstract) {
    name = given;
  }
  if (name.empty() || name.ends_with('/')) {
    return EINVAL;
  }
  Address address;
  address.service = service_of(name);
  name = platform::rooted(name);
  if (name.size() > sizeof(address.name.sun_path) - 1) {
    return ENAMETOOLONG;
  }
  address.name.sun_family = AF_UNIX;
  memcpy(address.name.sun_path + (abstract ? 1 : 0), name.data(), name.size());
  address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  if (!abstract) {
    address.path = name;
  }
  ret_address = std::move(address);
  return 0;
}

}  // namespace kxbus
