// Where this system's files lie.
//
// Every path in the code is the fixed, absolute one ("/etc/config/zorv/zorv.db"). When the
// environment names ZORV_ROOT, rooted() puts that folder in front of a path that is about to be
// opened, locked or executed, so that any number of complete systems live side by side without root
// rights. Texts, logs and defaults keep showing the plain path.
//
// ZORV_ROOT is read once, at the first call, with secure_getenv: a set-user-ID program ignores it.
// A relative one is taken from the folder that is then current. Safe to call from any thread.
#pragma once

#include <string>
#include <string_view>

namespace os {

// The absolute path that ZORV_ROOT names, without a trailing '/', or "" where it is not set.
const std::string& root();

// The path to hand to the kernel for the fixed path `path`. A relative path, as an option may give
// it, stays as it is.
std::string rooted(std::string_view path);

}  // namespace os
