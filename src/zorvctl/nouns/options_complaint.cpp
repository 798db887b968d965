#include "options_complaint.h"

#include <cstring>

#include "display_text.h"
#include "exit_status.h"
#include "global_options.h"

namespace zorvctl {

using zorv::kOptionsFile;

bool is_sound(const zorv::OptionsFile& file) {
  return file.state == zorv::OptionsFile::State::read ||
         file.state == zorv::OptionsFile::State::missing;
}

void complain_unsound(const zorv::OptionsFile& file) {
  const std::string reason = display_text(file.reason);
  if (file.state == zorv::OptionsFile::State::broken) {
    complain("the options file {} holds no JSON object, so that the defaults count: {}",
             kOptionsFile, reason);
  } else {
    complain("the options file {} could not be read: {}", kOptionsFile, reason);
  }
}

void complain_unsaved(const zorv::SaveResult& result) {
  switch (result.state) {
    case zorv::SaveResult::State::unlocked:
      complain("the options file {} cannot be locked for writing: {}", kOptionsFile,
               std::strerror(result.error));
      break;
    case zorv::SaveResult::State::unopened:
      complain("the options file {} cannot be written: {}", kOptionsFile,
               std::strerror(result.error));
      break;
    default:
      complain("writing the options file {} failed and damaged it, the log has what it should hold",
               kOptionsFile);
  }
}

}  // namespace zorvctl
