// Work that its caller does not wait for.
#pragma once

#include <functional>

namespace os {

// Does `work` in a process of its own that the system inherits: a copy of this one, with no
// descriptor of its but standard input, output and error. Where there can be none, it is done here.
// For a process with one thread; `work` must not throw.
void work_detached(const std::function<void()>& work);

}  // namespace os
