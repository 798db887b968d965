#include "options_file.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "conf_file_lock.h"
#include "descriptor.h"
#include "display_text.h"
#include "exit_status.h"
#include "global_options.h"
#include "rooted.h"

namespace zorvctl {
namespace {

struct CloseFile {
  void operator()(FILE* file) const { fclose(file); }
};

}  // namespace

OptionsFile read_options_file() {
  using State = OptionsFile::State;
  errno = 0;
  const nas::ConfFileLock lock(conf_file_read_lock(zorv::kOptionsFile));
  const int lock_error = errno;
  const std::unique_ptr<FILE, CloseFile> file(fopen(os::rooted(zorv::kOptionsFile).c_str(), "re"));
  if (file == nullptr) {
    const bool missing = errno == ENOENT || errno == ENOTDIR;
    return {missing ? State::missing : State::unread, std::strerror(errno), nullptr};
  }
  if (!lock.held()) {
    return {State::unread, std::string("it cannot be locked: ") + std::strerror(lock_error),
            nullptr};
  }
  json_error_t error;
  JsonRef sections(json_loadf(file.get(), 0, &error));
  if (sections == nullptr && std::ferror(file.get()) != 0) {
    return {State::unread, std::strerror(errno), nullptr};
  }
  if (sections == nullptr) {
    return {State::broken, display_text(error.text), nullptr};
  }
  if (!json_is_object(sections.get())) {
    return {State::broken, "it is JSON, but not an object", nullptr};
  }
  return {State::read, "", std::move(sections)};
}

bool is_sound_or_missing(const OptionsFile& file) {
  switch (file.state) {
    case OptionsFile::State::unread:
      complain("the options file {} could not be read: {}", zorv::kOptionsFile, file.reason);
      return false;
    case OptionsFile::State::broken:
      complain("the options file {} holds no JSON object, so that the defaults count: {}",
               zorv::kOptionsFile, file.reason);
      return false;
    case OptionsFile::State::missing:
    case OptionsFile::State::read:
      break;
  }
  return true;
}

bool can_be_written() {
  const nas::ConfFileLock lock(conf_file_write_lock(zorv::kOptionsFile));
  if (!lock.held()) {
    complain("the options file {} cannot be locked for writing: {}", zorv::kOptionsFile,
             std::strerror(errno));
    return false;
  }
  const os::Descriptor file(open(os::rooted(zorv::kOptionsFile).c_str(), O_WRONLY | O_CLOEXEC));
  if (!file.valid()) {
    complain("the options file {} cannot be written: {}", zorv::kOptionsFile, std::strerror(errno));
    return false;
  }
  return true;
}

bool is_whole_after_saving(const OptionsFile& file) {
  if (file.state == OptionsFile::State::read) {
    return true;
  }
  if (file.state == OptionsFile::State::unread) {
    complain("the options file {} could not be read again after it was written: {}",
             zorv::kOptionsFile, file.reason);
    return false;
  }
  complain("writing the options file {} failed and damaged it, the log has what it should hold",
           zorv::kOptionsFile);
  return false;
}

}  // namespace zorvctl
