// The service's log as messages. In the file a message is
//
//   DATE TIME PID [LEVEL] MODULE [LINE] FUNCTION:TEXT
//
// and many texts have no newline at their end, so a message begins wherever such a front stands,
// not where a line does. A text that holds the whole front of another message looks like two:
// nothing in the file tells them apart.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "logger.h"

namespace zorvctl {

// Views of the text that it was found in.
struct LogMessage {
  std::string_view front;  // up to its colon; empty for text that stands before any message
  std::string_view time;   // "2026-11-21 04:10:06", in the zone of whoever wrote it
  std::string_view level;  // its name
  std::string_view text;   // without the newlines that end it
};

struct LogLevelName {
  std::string_view name;
  LogLevel level;
};
inline constexpr LogLevelName kLogLevels[] = {{"DEBUG", LogLevel::debug},
                                              {"INFO", LogLevel::info},
                                              {"WARN", LogLevel::warn},
                                              {"ERROR", LogLevel::error}};

// Fronts are no longer, and texts are shown in pieces where they are.
inline constexpr size_t kLongestFront = 512;
inline constexpr size_t kLongestText = 1U << 20;

// The first front in `text` that begins at `from` or behind, as a message without a text.
std::optional<LogMessage> find_front(std::string_view text, size_t from = 0);

// Takes the log apart, whatever pieces it comes in.
class MessageSplitter {
 public:
  using OnMessage = std::function<void(const LogMessage&)>;
  explicit MessageSplitter(OnMessage on_message) : on_message_(std::move(on_message)) {}

  // Hands on what another message follows.
  void add(std::string_view bytes);
  // Hands on the rest: a message is written at once, so what ends the file is whole.
  void end();

 private:
  void hand_on(std::string_view message);

  OnMessage on_message_;
  std::string pending_;
  size_t searched_ = 0;  // no further message begins in front of it
};

}  // namespace zorvctl
