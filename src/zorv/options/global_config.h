// The options file as it was found and as it was left: what the functions of global_options.h know
// and keep to themselves. Blocks and may be called as those.
#pragma once

#include <string>

#include "json_ref.h"

namespace zorv {

struct OptionsFile {
  enum class State {
    missing,
    unopened,  // it is there, perhaps, and could not be locked or opened
    unread,    // it was opened and could not be read: a folder, a bad disk
    broken,    // it holds no JSON object
    read,
  };
  State state = State::unopened;
  bool is_locked = false;  // a file can be seen to be missing without the lock, too
  std::string reason;      // half a sentence, of all states but `read`
  JsonRef sections;        // of `read`
};

// Under the read lock. Logs nothing.
OptionsFile read_options();

// What the service takes the file for: a broken or unreadable one for the default content, one that
// could not be had for an empty object. Logs what is wrong, as GlobalConfig::load(). Never null.
JsonRef taken_options(const OptionsFile& file);

// One section; an empty object where there is none of this name.
JsonRef section_of(const json_t* options, const char* key);

struct SaveResult {
  enum class State {
    written,
    unlocked,    // the file is as it was
    unopened,    // the file is as it was
    unmerged,    // the patch is no object: the file is empty
    incomplete,  // the file is damaged, the log has what it should hold
  };
  State state = State::written;
  int error = 0;  // errno of `unlocked` and `unopened`
};

// Replaces the sections that stand in the patch, too, writes all of them under the write lock, and
// announces and applies the gateway. Logs as GlobalConfig::save().
SaveResult save_options(json_t* sections, json_t* patch);

}  // namespace zorv
