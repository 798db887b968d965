#include "kx_allow.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string>
#include <vector>

#include "descriptor.h"
#include "kx_callers.h"
#include "rooted.h"

namespace kxbus {
namespace {

constexpr off_t kLargestFile = 64 * 1024;
constexpr std::string_view kBlanks = " \t\r";

const char* fault_of(const struct stat& about) {
  const bool own_root = !os::root().empty() && geteuid() != 0;
  if (!S_ISREG(about.st_mode)) {
    return "not a plain file";
  }
  if (about.st_uid != 0 && !(own_root && about.st_uid == geteuid())) {
    return "not owned by root";
  }
  if ((about.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return "writable by others";
  }
  return about.st_size > kLargestFile ? "too large" : nullptr;
}

std::optional<unsigned> number_of(const std::string& name) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  if (error != std::errc() || end != name.data() + name.size() || number == ~0u) {
    return {};
  }
  return number;
}

std::optional<unsigned> id_of(bool is_group, const std::string& name) {
  std::vector<char> space(64 * 1024);
  if (is_group) {
    group entry{};
    group* found = nullptr;
    getgrnam_r(name.c_str(), &entry, space.data(), space.size(), &found);
    return found != nullptr ? found->gr_gid : number_of(name);
  }
  passwd entry{};
  passwd* found = nullptr;
  getpwnam_r(name.c_str(), &entry, space.data(), space.size(), &found);
  return found != nullptr ? found->pw_uid : number_of(name);
}

std::string_view next_word(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
  text.remove_prefix(word.size());
  return word;
}

// The list's text, "" where it is missing or does not count.
std::string load(const std::string& path, LogBudget& budget) {
  const os::Descriptor file(
      open(os::rooted(path).c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!file.valid() && errno == ENOENT) {
    return "";
  }
  struct stat about {};
  const char* const fault =
      file.valid() && fstat(file.get(), &about) == 0 ? fault_of(about) : "cannot be read";
  if (fault != nullptr) {
    if (budget.spend()) {
      log_line("%s refused: %s", path.c_str(), fault);
    }
    return "";
  }
  std::string text(static_cast<std::size_t>(about.st_size), '\0');
  const ssize_t length = read(file.get(), text.data(), text.size());
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return text;
}

void add_members(gid_t id, std::set<unsigned>& users) {
  if (const group* entry = getgrgid(id); entry != nullptr) {
    for (char** name = entry->gr_mem; *name != nullptr; ++name) {
      if (const passwd* user = getpwnam(*name); user != nullptr) {
        users.insert(user->pw_uid);
      }
    }
  }
  setpwent();
  for (const passwd* user = getpwent(); user != nullptr; user = getpwent()) {
    if (user->pw_gid == id) {
      users.insert(user->pw_uid);
    }
  }
  endpwent();
}

// Whether `admits` holds for the kind and the id of one of the list's lines.
template <class Admits>
bool any_line(std::string_view service, LogBudget& budget, Admits admits) {
  const std::string path = "/etc/config/kxbus/" + std::string(service) + ".allow";
  const std::string text = load(path, budget);
  for (std::string_view rest = text; !rest.empty();) {
    std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    line = line.substr(0, line.find('#'));
    const std::string kind(next_word(line));
    const std::string name(next_word(line));
    if (kind.empty()) {
      continue;
    }
    const bool understood = (kind == "user" || kind == "group" || kind == "server") &&
                            !name.empty() && next_word(line).empty();
    const std::optional<unsigned> id = understood ? id_of(kind == "group", name) : std::nullopt;
    if (id && admits(kind, *id)) {
      return true;
    }
    if (!understood && budget.spend()) {
      log_line("%s: a line beginning with \"%.32s\" is not understood", path.c_str(), kind.c_str());
    } else if (understood && !id && budget.spend()) {
      log_line("%s: unknown %s \"%.64s\"", path.c_str(), kind.c_str(), name.c_str());
    }
  }
  return false;
}

}  // namespace

bool is_allowed_caller(std::string_view service, int socket, const Peer& peer, LogBudget& budget) {
  return any_line(service, budget, [&](std::string_view kind, unsigned id) {
    return kind == "user" ? id == peer.uid : kind == "group" && is_in_group(socket, peer, id);
  });
}

bool is_allowed_listener(std::string_view service, const Peer& peer) {
  LogBudget budget;
  return any_line(service, budget, [&](std::string_view kind, unsigned id) {
    return kind == "server" && id == peer.uid;
  });
}

std::set<unsigned> listed_callers(std::string_view service) {
  std::set<unsigned> users;
  LogBudget budget;
  any_line(service, budget, [&](std::string_view kind, unsigned id) {
    if (kind == "group") {
      add_members(id, users);
    } else {
      users.insert(id);
    }
    return false;
  });
  return users;
}

}  // namespace kxbus
