// Steps of replacing a file as a whole: its successor is written beside it, synced, renamed into
// its place, and the folder is synced.
#pragma once

#include <string>
#include <string_view>

namespace os {

// Both return false, with errno set, where it could not be done.

// Writes all of the text, however many calls that takes.
bool write_all(int descriptor, std::string_view text);

// Sees the names of the folder in which `path` stands on the disk, for a name to outlive a power
// cut.
bool sync_folder_of(const std::string& path);

}  // namespace os
