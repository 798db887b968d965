// Answers of a service, and JSON documents in files under the files' configuration locks.
//
// An answer is an object with an integer "error": 0 and the result under "data", or an errno number
// and a "message". A null one means no memory.
//
// Nothing here waits long: what is no regular file is refused, a file over kLargestDocument is
// refused, and a lock that is not had within kLockWait is an error.
#pragma once

#include <chrono>
#include <string>

#include "json_ref.h"

namespace platformd {

inline constexpr size_t kLargestDocument = 1024UL * 1024;

// Callers of the bus give up after 5 seconds.
inline constexpr std::chrono::milliseconds kLockWait{3000};

JsonRef success(JsonRef data);
JsonRef failure(int error, const std::string& message);

// For a lock on `path` that was not had, errno saying why.
JsonRef no_lock(const std::string& path);

// The document in the file `path` (plain) as the answer's data. EBADMSG: broken JSON.
JsonRef read_document(const std::string& path);

// Puts `value` in place of the file `path` (plain): readers see the old document or the new one.
// 0, or an errno number.
int replace_document(const std::string& path, const json_t* value);

}  // namespace platformd
