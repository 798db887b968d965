// Colours of text on a terminal.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zorvctl {

enum class ColorMode { automatic, always, never };

inline constexpr const char* kColorWords = "auto, always, never";
std::optional<ColorMode> color_mode_of(std::string_view word);

// Automatic: on a terminal, unless NO_COLOR says something or TERM is "dumb".
bool is_colored(ColorMode mode);

inline constexpr std::string_view kRed = "31";
inline constexpr std::string_view kYellow = "33";
inline constexpr std::string_view kGrey = "90";

std::string colored(std::string_view text, std::string_view color);

}  // namespace zorvctl
