// Colours of text on a terminal.
#pragma once

#include <string>
#include <string_view>

namespace zorvctl {

enum class ColorMode { automatic, always, never };

// Automatic: on a terminal, unless NO_COLOR says something or TERM is "dumb".
bool is_colored(ColorMode mode);

inline constexpr std::string_view kRed = "1;31";
inline constexpr std::string_view kYellow = "33";
inline constexpr std::string_view kGrey = "90";

std::string colored(std::string_view text, std::string_view color);

}  // namespace zorvctl
