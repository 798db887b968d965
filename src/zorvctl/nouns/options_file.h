// The options file as it stands, with the reason where it cannot be had: the service's own reading
// turns every failure into default or empty options.
#pragma once

#include <string>

#include "json_ref.h"

namespace zorvctl {

struct OptionsFile {
  enum class State {
    missing,
    unread,  // it is there, perhaps, and may not be locked or opened
    broken,  // it holds no JSON object; the service takes the defaults for it
    read,
  };
  State state = State::unread;
  std::string reason;  // half a sentence, of unread and broken
  JsonRef sections;    // of read
};

// Waits for the file's lock as the service does.
OptionsFile read_options_file();

// False after a complaint, for a file that is there and could not be read or holds no object.
bool is_sound_or_missing(const OptionsFile& file);

// False after a complaint, where saving would not even begin: the service says nothing then. Takes
// the lock for a moment and changes nothing.
bool can_be_written();

// False after a complaint, for what a failed save left of the file.
bool is_whole_after_saving(const OptionsFile& file);

}  // namespace zorvctl
