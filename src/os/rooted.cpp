#include "rooted.h"

#include <climits>
#include <cstdlib>

namespace os {

const std::string& root() {
  static const std::string value = [] {
    const char* named = secure_getenv("ZORV_ROOT");
    std::string text = named != nullptr ? named : "";
    char folder[PATH_MAX];
    if (!text.empty() && text.front() != '/' && realpath(named, folder) != nullptr) {
      text = folder;
    }
    while (!text.empty() && text.back() == '/') {
      text.pop_back();
    }
    return text;
  }();
  return value;
}

std::string rooted(std::string_view path) {
  const bool absolute = !path.empty() && path.front() == '/';
  std::string full = absolute ? root() : "";
  full += path;
  return full;
}

}  // namespace os
