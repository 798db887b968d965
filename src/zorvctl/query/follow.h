// Reading on: what a command with -f does from its first row to its end.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace zorvctl {

// Calls `read` at once, and then whenever the daemon may have something new, until a signal ends it
// or nobody reads the output any more. `read` gives the status of its queries, or nothing where the
// command has failed and complained. The first query has to work; a later one that does not is told
// once, and tried again until one does. The exit status, `what` being what is asked: "list the
// connections". `is_due` may say that there is something new for another reason.
int read_on(
    const std::string& what, const std::function<std::optional<int>()>& read,
    const std::function<bool()>& is_due = [] { return false; });

}  // namespace zorvctl
