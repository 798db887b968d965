#include "color.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>

namespace zorvctl {

std::optional<ColorMode> color_mode_of(std::string_view word) {
  return word == "auto"     ? std::optional(ColorMode::automatic)
         : word == "always" ? std::optional(ColorMode::always)
         : word == "never"  ? std::optional(ColorMode::never)
                            : std::nullopt;
}

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
