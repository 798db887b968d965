// What one call of ours wrote and ran, read back from the log: a floor does exactly that again.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

struct Recording {
  std::vector<std::string> own_lines;     // by this process, the caller
  std::vector<std::string> daemon_lines;  // by the daemon and whom it called
  std::vector<std::string> statements;    // given to SQLite by the daemon, in order
};

// Runs `call` and reads what was logged meanwhile. The log starts empty with it.
Recording record(const std::function<void()>& call);

}  // namespace bench
