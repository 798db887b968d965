// What a service is called, and where that is.
//
//   "@NAME"  the abstract socket NAME
//   "/..."   a path
//   "NAME"   a service name: the abstract socket "/var/run/NAME.sock"
//
// The system's root (ZORV_ROOT) goes in front of the path and of the abstract name, so complete
// systems do not meet. A name that does not fit the kernel's 107 bytes is refused, never cut.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string_view>

namespace kxbus {

struct Address {
  sockaddr_un name{};
  socklen_t length = 0;
  std::string_view
      service;  // last component without ".sock", within the text: whose allow list counts

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&name); }
  // The rooted path, or "" for an abstract name.
  const char* path() const { return name.sun_path; }
};

// 0, or EINVAL for a text that is no address, or ENAMETOOLONG.
int resolve_address(const char* text, Address& ret_address);

}  // namespace kxbus
