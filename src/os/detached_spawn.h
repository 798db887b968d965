// Starting a program that nobody waits for, from a process of any size.
#pragma once

namespace os {

// Runs `file` with the null-terminated `arguments`, as a grandchild that the system inherits:
// standard streams on /dev/null, no other descriptor of this process, this thread's signal mask, no
// signal handlers. Returns when the program has been started or could not be; nothing is reported.
//
// Both processes share this one's memory until the program is executed, as vfork does it, so the
// cost depends neither on how much memory this process holds nor on its descriptor limit.
void spawn_detached(const char* file, const char* const* arguments);

}  // namespace os
