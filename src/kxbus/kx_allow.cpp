#include "kx_allow.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <optional>

#include "kx_descriptor.h"
#include "kx_log.h"
#include "rooted.h"

namespace kxbus {
namespace {

constexpr off_t kLargestFile = 64 * 1024;
constexpr time_t kUnknownNamePause = 10;
constexpr std::string_view kBlanks = " \t\r";

bool same_file(const struct stat& one, const struct stat& other) {
  return one.st_ino == other.st_ino && one.st_dev == other.st_dev && one.st_size == other.st_size &&
         one.st_uid == other.st_uid && one.st_mode == other.st_mode &&
         one.st_mtim.tv_sec == other.st_mtim.tv_sec &&
         one.st_mtim.tv_nsec == other.st_mtim.tv_nsec &&
         one.st_ctim.tv_sec == other.st_ctim.tv_sec && one.st_ctim.tv_nsec == other.st_ctim.tv_nsec;
}

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

std::optional<uid_t> uid_of(const std::string& name) {
  std::vector<char> space(16 * 1024);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwnam_r(name.c_str(), &entry, space.data(), space.size(), &found) == 0 &&
      found != nullptr) {
    return found->pw_uid;
  }
  return number_of(name);
}

std::optional<gid_t> gid_of(const std::string& name) {
  std::vector<char> space(64 * 1024);
  group entry{};
  group* found = nullptr;
  if (getgrnam_r(name.c_str(), &entry, space.data(), space.size(), &found) == 0 &&
      found != nullptr) {
    return found->gr_gid;
  }
  return number_of(name);
}

std::string_view next_word(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
  text.remove_prefix(word.size());
  return word;
}

bool contains(const std::vector<uid_t>& list, uid_t uid) {
  return std::find(list.begin(), list.end(), uid) != list.end();
}

}  // namespace

bool AllowList::admits_caller(int socket, const Peer& peer) {
  refresh();
  return contains(users_, peer.uid) ||
         std::any_of(groups_.begin(), groups_.end(),
                     [&](gid_t group) { return is_in_group(socket, peer, group); });
}

bool AllowList::admits_listener(const Peer& peer) {
  refresh();
  return contains(servers_, peer.uid);
}

void AllowList::refresh() {
  const std::string path = os::rooted(plain_path_);
  struct stat about {};
  if (stat(path.c_str(), &about) != 0) {
    about = {};
  }
  if (same_file(about, seen_) && (read_again_ == 0 || time(nullptr) < read_again_)) {
    return;
  }
  seen_ = about;
  read_again_ = 0;
  users_.clear();
  groups_.clear();
  servers_.clear();
  if (about.st_ino != 0) {
    load(path);
  }
}

void AllowList::load(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat about {};
  if (!file.valid() || fstat(file.get(), &about) != 0) {
    log_line("%s refused: cannot be read", plain_path_.c_str());
    return;
  }
  if (const char* fault = fault_of(about)) {
    log_line("%s refused: %s", plain_path_.c_str(), fault);
    return;
  }
  std::string text(static_cast<std::size_t>(about.st_size), '\0');
  const ssize_t length = read(file.get(), text.data(), text.size());
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    parse_line(line.substr(0, line.find('#')));
  }
}

void AllowList::parse_line(std::string_view line) {
  const std::string kind(next_word(line));
  const std::string name(next_word(line));
  if (kind.empty()) {
    return;
  }
  const bool is_group = kind == "group";
  if ((!is_group && kind != "user" && kind != "server") || name.empty() ||
      !next_word(line).empty()) {
    log_line("%s: a line beginning with \"%.32s\" is not understood", plain_path_.c_str(),
             kind.c_str());
    return;
  }
  const std::optional<unsigned> id = is_group ? gid_of(name) : uid_of(name);
  if (!id) {
    log_line("%s: unknown %s \"%.64s\"", plain_path_.c_str(), kind.c_str(), name.c_str());
    read_again_ = time(nullptr) + kUnknownNamePause;
    return;
  }
  (is_group ? groups_ : kind == "user" ? users_ : servers_).push_back(*id);
}

}  // namespace kxbus
