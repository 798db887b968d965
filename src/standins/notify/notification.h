// One notification: what the command line says of it, and the two forms it is kept in.
//
// The command line is fixed, word by word:
//
//   notify send -A A238 -C CATEGORY -M MESSAGE_ID -l LEVEL -t 3 TEMPLATE APPNAME [VALUE...]
//
// LEVEL is info, warn or error. In TEMPLATE, {0} stands for APPNAME and {N}, one or two digits, for
// the N-th VALUE; a placeholder without a value stays as it is, and what comes out of a value is
// text and never a placeholder.
//
// Words are bytes. They are made valid UTF-8 only for JSON, each byte that is not part of a
// character becoming U+FFFD.
#pragma once

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace notify {

// A longer text is cut: a template may name a long value many times.
inline constexpr size_t kLongestText = 1024UL * 1024;

struct Notification {
  std::string_view category;
  std::string_view message_id;
  std::string_view level;
  std::string_view message;                 // the template
  std::vector<std::string_view> arguments;  // APPNAME and the values
};

// Nothing when the words are not exactly the command line above. The views are those of `argv`.
std::optional<Notification> parse_command_line(int argc, char** argv);

std::string render(const Notification& notification);

std::string valid_utf8(std::string_view bytes);

// One line with its newline, or "" without memory. An object with "time" (ISO 8601 local time with
// its offset), "category", "message_id", "level", "arguments" (an array of texts, APPNAME first)
// and "text" (rendered).
std::string json_line(const Notification& notification, std::string_view text, time_t now);

}  // namespace notify
