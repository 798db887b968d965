#include "log_message.h"

#include <algorithm>

namespace zorvctl {
namespace {

constexpr std::string_view kTimeShape = "0000-00-00 00:00:00";
constexpr std::string_view kDigits = "0123456789";

bool has_shape(std::string_view text, std::string_view shape) {
  return std::equal(text.begin(), text.end(), shape.begin(), shape.end(), [](char c, char wanted) {
    return wanted == '0' ? kDigits.find(c) != std::string_view::npos : c == wanted;
  });
}

bool is_name(std::string_view text) {
  constexpr std::string_view kLetters =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_()~<>=";  // operator()
  return !text.empty() && text.find_first_not_of(kLetters) == std::string_view::npos;
}

bool is_number(std::string_view text) {
  return !text.empty() && text.find_first_not_of(kDigits) == std::string_view::npos;
}

// The front of `rest` up to `end`, both of which it then loses; nothing where `end` is too far.
std::string_view take(std::string_view& rest, std::string_view end) {
  const size_t length = rest.substr(0, kLongestFront).find(end);
  if (length == std::string_view::npos) {
    return {};
  }
  const std::string_view taken = rest.substr(0, length);
  rest.remove_prefix(length + end.size());
  return taken;
}

// The front whose level's bracket stands at `bracket`.
std::optional<LogMessage> front_around(std::string_view text, size_t from, size_t bracket) {
  // " PID " between the time and the bracket.
  const std::string_view before = text.substr(from, bracket - from);
  if (!before.ends_with(' ')) {
    return std::nullopt;
  }
  const size_t blank = before.find_last_not_of(kDigits, before.size() - 2);
  if (blank == std::string_view::npos || blank < kTimeShape.size() || before[blank] != ' ' ||
      blank + 2 == before.size()) {
    return std::nullopt;
  }
  LogMessage message;
  message.time = before.substr(blank - kTimeShape.size(), kTimeShape.size());
  std::string_view rest = text.substr(bracket + 1);
  message.level = take(rest, "] ");
  const std::string_view module = take(rest, " [");
  const std::string_view line = take(rest, "] ");
  const std::string_view function = take(rest, ":");
  const bool is_level =
      std::any_of(std::begin(kLogLevels), std::end(kLogLevels),
                  [&](const LogLevelName& known) { return known.name == message.level; });
  if (!has_shape(message.time, kTimeShape) || !is_level || !is_name(module) || !is_number(line) ||
      !is_name(function)) {
    return std::nullopt;
  }
  const char* const begin = message.time.data();
  message.front = {begin, static_cast<size_t>(rest.data() - begin)};
  return message;
}

}  // namespace

std::optional<LogMessage> find_front(std::string_view text, size_t from) {
  for (size_t bracket = text.find('[', from); bracket != std::string_view::npos;
       bracket = text.find('[', bracket + 1)) {
    if (auto message = front_around(text, from, bracket)) {
      return message;
    }
  }
  return std::nullopt;
}

void MessageSplitter::add(std::string_view bytes) {
  pending_ += bytes;
  std::string_view rest = pending_;
  while (const auto front = find_front(rest, searched_)) {
    const auto begin = static_cast<size_t>(front->front.data() - rest.data());
    if (begin != 0) {
      hand_on(rest.substr(0, begin));
    }
    rest.remove_prefix(begin);
    searched_ = front->front.size();
  }
  // The front of the next message may have come in part.
  searched_ = std::max(searched_, rest.size() - std::min(rest.size(), kLongestFront));
  pending_.erase(0, pending_.size() - rest.size());
  if (pending_.size() > kLongestText) {
    end();
  }
}

void MessageSplitter::end() {
  if (!pending_.empty()) {
    hand_on(pending_);
  }
  pending_.clear();
  searched_ = 0;
}

void MessageSplitter::hand_on(std::string_view message) {
  const auto front = find_front(message);
  if (front && front->front.data() == message.data()) {
    LogMessage whole = *front;
    whole.text = message.substr(whole.front.size());
    whole.text = whole.text.substr(0, whole.text.find_last_not_of('\n') + 1);
    on_message_(whole);
    return;
  }
  while (!message.empty()) {
    const size_t length = message.find('\n');
    on_message_({{}, {}, {}, message.substr(0, length)});
    message.remove_prefix(
        std::min(message.size(), length == std::string_view::npos ? message.size() : length + 1));
  }
}

}  // namespace zorvctl
