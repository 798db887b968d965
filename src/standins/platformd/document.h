// JSON documents in files, under the files' configuration locks.
//
// Nothing here waits long: a FIFO, a device or a directory is refused unopened, a file over
// kLargestDocument is refused, and a lock that is not had within kLockWait is an error.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "descriptor.h"
#include "json_ref.h"

namespace platformd {

inline constexpr size_t kLargestDocument = 1024UL * 1024;

// Callers of the bus give up after 5 seconds.
inline constexpr std::chrono::milliseconds kLockWait{3000};

// A document, or why there is none.
struct Document {
  JsonRef value;
  int error = 0;  // an errno number; EBADMSG: broken JSON
  std::string message;
};

Document no_document(int error, std::string_view path, const std::string& reason);

// The same for a lock that was not had, errno saying why.
Document no_lock(std::string_view path);

// Opens a regular file for reading, null with errno otherwise. `path` is relative to `folder` and
// made of plain names: no empty one, no ".", no "..". No link is followed on the way, so what is
// opened lies below `folder`.
os::Descriptor open_beneath(int folder, std::string_view path);

// Reads the document in an open file; `path` is what messages call it.
Document parse_file(const os::Descriptor& file, std::string_view path);

// Puts `value` in place of the file `path` (plain): readers see the old document or the new one.
// 0, or an errno number.
int replace_file(const std::string& path, const json_t* value);

}  // namespace platformd
