#include "login_policy_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "conf_file_lock.h"
#include "descriptor.h"
#include "json_ref.h"
#include "login_policy.h"
#include "rooted.h"
#include "whole_file.h"

namespace zorv {
namespace {

constexpr mode_t kNewMode = 0644;

struct PolicyFile {
  std::string path;                   // where it really lies
  std::optional<struct stat> status;  // none of a file that is missing
  JsonRef root;
};

std::string because(const char* what, int error = errno) {
  return std::string(what) + ": " + std::strerror(error);
}

// "", or why not.
std::string read_file(PolicyFile& ret_file) {
  const std::string named = os::rooted(kLoginPolicyFile);
  char real[PATH_MAX];
  PolicyFile file{realpath(named.c_str(), real) != nullptr ? real : named, {}, nullptr};
  const os::Descriptor opened(open(file.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!opened.valid() && errno == ENOENT) {
    file.root.reset(json_pack("{s:{s:b, s:i, s:i}}", "global", "enable", int{kDefaultPolicyIsOn},
                              "limit", kDefaultPolicyLimit, "time", kDefaultPolicyMinutes));
    ret_file = std::move(file);
    return "";
  }
  struct stat status {};
  if (!opened.valid() || fstat(opened.get(), &status) != 0) {
    return because("it cannot be read");
  }
  if (!S_ISREG(status.st_mode)) {
    return "it is no file";
  }
  file.status = status;
  json_error_t error;
  file.root.reset(json_loadfd(opened.get(), 0, &error));
  if (file.root == nullptr) {
    return "it is broken, line " + std::to_string(error.line) + ": " + error.text +
           "; mend it, or remove it to begin anew";
  }
  const json_t* const global = json_object_get(file.root.get(), "global");
  if (!json_is_object(file.root.get()) || (global != nullptr && !json_is_object(global))) {
    return "it is JSON, but holds no object \"global\"; mend it, or remove it to begin anew";
  }
  ret_file = std::move(file);
  return "";
}

json_t* number_of(double minutes) {
  return minutes == std::floor(minutes) ? json_integer(static_cast<json_int_t>(minutes))
                                        : json_real(minutes);
}

bool apply(const PolicyChange& change, json_t* root) {
  json_t* policy = json_object_get(root, "global");
  if (policy == nullptr) {
    policy = json_object();
    json_object_set_new(root, "global", policy);
  }
  return (!change.enabled ||
          json_object_set_new(policy, "enable", json_boolean(*change.enabled)) == 0) &&
         (!change.limit ||
          json_object_set_new(policy, "limit", json_integer(*change.limit)) == 0) &&
         (!change.minutes || json_object_set_new(policy, "time", number_of(*change.minutes)) == 0);
}

// As the file that it replaces.
bool take_over(int fd, const std::optional<struct stat>& old) {
  if (!old) {
    return fchmod(fd, kNewMode) == 0;
  }
  struct stat fresh {};
  const bool is_owned =
      fstat(fd, &fresh) == 0 && fresh.st_uid == old->st_uid && fresh.st_gid == old->st_gid;
  return (is_owned || fchown(fd, old->st_uid, old->st_gid) == 0) &&
         fchmod(fd, old->st_mode & 07777) == 0;
}

std::string replace_file(const PolicyFile& file, const std::string& text) {
  std::string fresh = file.path + ".XXXXXX";
  const os::Descriptor opened(mkostemp(fresh.data(), O_CLOEXEC));
  if (!opened.valid()) {
    return because("no file can be made beside it");
  }
  if (!take_over(opened.get(), file.status) || !os::write_all(opened.get(), text) ||
      fsync(opened.get()) != 0 || rename(fresh.c_str(), file.path.c_str()) != 0) {
    const int error = errno;
    unlink(fresh.c_str());
    return because("it cannot be replaced", error);
  }
  // The name is there after a power cut, too; where a folder cannot be synced, sooner or later.
  os::sync_folder_of(file.path);
  return "";
}

}  // namespace

double minutes_of(unsigned long long seconds) {
  const double minutes = static_cast<double>(seconds) / 60.0;
  return block_seconds(minutes) == seconds
             ? minutes
             : std::nextafter(minutes, std::numeric_limits<double>::infinity());
}

std::string change_login_policy(const PolicyChange& change) {
  const nas::ConfFileLock lock(conf_file_write_lock(kLoginPolicyFile));
  if (!lock.held()) {
    return because("it cannot be locked");
  }
  PolicyFile file;
  if (std::string reason = read_file(file); !reason.empty()) {
    return reason;
  }
  const JsonText text =
      apply(change, file.root.get()) ? dump_json(file.root.get(), JSON_INDENT(2)) : nullptr;
  return text != nullptr ? replace_file(file, text.get() + std::string("\n"))
                         : because("it cannot be written", ENOMEM);
}

}  // namespace zorv
