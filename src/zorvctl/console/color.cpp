#include "color.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>

namespace zorvctl {

bool is_colored(ColorMode mode) {
  if (mode != ColorMode::automatic) {
    return mode == ColorMode::always;
  }
  const char* const no_color = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) == 1 && (no_color == nullptr || *no_color == '\0') &&
         (terminal == nullptr || std::string_view(terminal) != "dumb");
}

std::string colored(std::string_view text, std::string_view color) {
  return fmt::format("\x1b[{}m{}\x1b[0m", color, text);
}

}  // namespace zorvctl
