#include "memory_room.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>

#include "descriptor.h"

namespace os {
namespace {

// Where a hierarchy of groups is mounted, and what its files are called. A service manager of a
// mixed system may leave memory with the first version.
struct Hierarchy {
  std::string_view mount;
  const char* limit;
  const char* usage;
  const char* cache;  // in memory.stat; of it, what lies in memory files stays
  const char* memory_files;
};
constexpr Hierarchy kFirst = {"/sys/fs/cgroup/memory", "memory.limit_in_bytes",
                              "memory.usage_in_bytes", "total_cache", "total_shmem"};
constexpr Hierarchy kSecond = {"/sys/fs/cgroup", "memory.max", "memory.current", "file", "shmem"};

std::string content(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char text[8192];
  const ssize_t length = file.valid() ? read(file.get(), text, sizeof text) : -1;
  return {text, length > 0 ? static_cast<std::size_t>(length) : 0};
}

// The number that a text begins with, or `otherwise`.
std::uint64_t number_in(std::string_view text, std::uint64_t otherwise) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() ? number : otherwise;
}

std::uint64_t number_behind(std::string_view text, std::string_view name) {
  for (std::size_t at = 0; (at = text.find(name, at)) != std::string_view::npos;
       at += name.size()) {
    const std::size_t end = at + name.size();
    if ((at == 0 || text[at - 1] == '\n') && end < text.size() && text[end] == ' ') {
      return number_in(text.substr(end + 1), 0);
    }
  }
  return 0;
}

void take_room_of(const Hierarchy& hierarchy, const std::string& folder, MemoryRoom& room) {
  const std::uint64_t limit = number_in(content(folder + hierarchy.limit), kUnlimitedMemory);
  if (limit == kUnlimitedMemory) {
    return;
  }
  const std::uint64_t usage = number_in(content(folder + hierarchy.usage), 0);
  const std::string stat = content(folder + "memory.stat");
  const std::uint64_t cache = number_behind(stat, hierarchy.cache);
  const std::uint64_t kept = std::min(cache, number_behind(stat, hierarchy.memory_files));
  const std::uint64_t used = usage - std::min(usage, cache - kept);
  room.limit = std::min(room.limit, limit);
  room.left = std::min(room.left, limit - std::min(limit, used));
}

bool names_memory(std::string_view controllers) {
  while (!controllers.empty()) {
    const std::string_view one = controllers.substr(0, controllers.find(','));
    if (one == "memory") {
      return true;
    }
    controllers.remove_prefix(std::min(one.size() + 1, controllers.size()));
  }
  return false;
}

}  // namespace

MemoryRoom memory_room() {
  MemoryRoom room;
  const std::string groups = content("/proc/self/cgroup");
  // A line is NUMBER:CONTROLLERS:GROUP; the second version has no controllers.
  for (std::string_view rest = groups; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    const std::size_t first = line.find(':');
    const std::size_t second = line.find(':', std::min(first, line.size() - 1) + 1);
    if (second == std::string_view::npos) {
      continue;
    }
    const std::string_view controllers = line.substr(first + 1, second - first - 1);
    if (!controllers.empty() && !names_memory(controllers)) {
      continue;
    }
    const Hierarchy& hierarchy = controllers.empty() ? kSecond : kFirst;
    std::string group(line.substr(second + 1));
    while (true) {
      group.resize(group.find_last_not_of('/') + 1);
      take_room_of(hierarchy, std::string(hierarchy.mount) + group + "/", room);
      if (group.empty()) {
        break;
      }
      group.resize(group.rfind('/') + 1);
    }
  }
  return room;
}

}  // namespace os
