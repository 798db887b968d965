// How zorv-ship ends, and the lines that it writes to stderr, where a service manager reads them.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <utility>

namespace ship {

enum ExitStatus : int {
  kDone = 0,
  kFailed = 1,       // the server: not reached, or it refused
  kUsage = 2,        // the words of the command line are wrong
  kUnreachable = 3,  // the daemon did not answer
  kNameTaken = 4,    // another machine ships under this name
};

template <class... Args>
void tell(fmt::format_string<Args...> format, Args&&... args) {
  const std::string text = "zorv-ship: " + fmt::format(format, std::forward<Args>(args)...) + "\n";
  std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace ship
