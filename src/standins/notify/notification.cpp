#include "notification.h"

#include <jansson.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>

#include "json_ref.h"

namespace notify {
namespace {

// The words before the template, in their places; an empty one is the caller's.
constexpr std::array<std::string_view, 12> kWords = {
    {"", "send", "-A", "A238", "-C", "", "-M", "", "-l", "", "-t", "3"}};
constexpr size_t kCategory = 5;
constexpr size_t kMessageId = 7;
constexpr size_t kLevel = 9;
constexpr size_t kTemplate = kWords.size();
constexpr size_t kApplicationName = kTemplate + 1;
static_assert(kWords[kCategory - 1] == "-C" && kWords[kMessageId - 1] == "-M" &&
              kWords[kLevel - 1] == "-l");

constexpr std::array<std::string_view, 3> kLevels = {"info", "warn", "error"};

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// The length of the placeholder that `text` begins with, its number in `ret_number`; 0: none.
size_t placeholder_length(std::string_view text, size_t& ret_number) {
  size_t digits = 0;
  size_t number = 0;
  while (digits < 2 && digits + 1 < text.size() && is_digit(text[digits + 1])) {
    number = number * 10 + static_cast<size_t>(text[digits + 1] - '0');
    ++digits;
  }
  if (digits == 0 || digits + 1 >= text.size() || text[digits + 1] != '}') {
    return 0;
  }
  ret_number = number;
  return digits + 2;
}

// The length of the well-formed character that `bytes` begins with, or 0: overlong forms,
// surrogates and what lies beyond U+10FFFF are none.
size_t character_length(std::string_view bytes) {
  struct Form {
    uint8_t first_low, first_high, second_low, second_high;
    size_t length;
  };
  constexpr Form kForms[] = {
      {0x00, 0x7F, 0x00, 0x00, 1}, {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
      {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
      {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
  };
  const auto byte = [bytes](size_t index) { return static_cast<uint8_t>(bytes[index]); };
  for (const Form& form : kForms) {
    if (byte(0) < form.first_low || byte(0) > form.first_high) {
      continue;
    }
    if (form.length > bytes.size() ||
        (form.length > 1 && (byte(1) < form.second_low || byte(1) > form.second_high))) {
      return 0;
    }
    for (size_t i = 2; i < form.length; ++i) {
      if (byte(i) < 0x80 || byte(i) > 0xBF) {
        return 0;
      }
    }
    return form.length;
  }
  return 0;
}

JsonRef text_value(std::string_view bytes) {
  const std::string text = valid_utf8(bytes);
  return JsonRef(json_stringn_nocheck(text.data(), text.size()));
}

std::string iso_time(time_t now) {
  tm local{};
  char text[64];
  if (localtime_r(&now, &local) == nullptr) {
    return {};
  }
  // "+0100" becomes "+01:00".
  std::string iso(text, strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local));
  if (iso.size() > 2) {
    iso.insert(iso.size() - 2, ":");
  }
  return iso;
}

}  // namespace

std::optional<Notification> parse_command_line(int argc, char** argv) {
  const std::vector<std::string_view> words(argv, argv + argc);
  if (words.size() <= kApplicationName) {
    return std::nullopt;
  }
  for (size_t i = 0; i < kWords.size(); ++i) {
    if (!kWords[i].empty() && words[i] != kWords[i]) {
      return std::nullopt;
    }
  }
  Notification notification{
      words[kCategory], words[kMessageId], words[kLevel], words[kTemplate], {}};
  for (const std::string_view level : kLevels) {
    if (notification.level == level) {
      notification.arguments.assign(words.begin() + kApplicationName, words.end());
      return notification;
    }
  }
  return std::nullopt;
}

std::string render(const Notification& notification) {
  std::string text;
  std::string_view rest = notification.message;
  while (!rest.empty() && text.size() < kLongestText) {
    const size_t literal = rest.find('{');
    text += rest.substr(0, literal);
    if (literal == std::string_view::npos) {
      break;
    }
    rest.remove_prefix(literal);
    size_t number = 0;
    const size_t length = placeholder_length(rest, number);
    if (length != 0 && number < notification.arguments.size()) {
      text += notification.arguments[number];
      rest.remove_prefix(length);
    } else {
      text += '{';
      rest.remove_prefix(1);
    }
  }
  if (text.size() > kLongestText) {
    text.resize(kLongestText);
  }
  return text;
}

std::string valid_utf8(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const size_t length = character_length(bytes);
    if (length == 0) {
      text += "\xEF\xBF\xBD";
      bytes.remove_prefix(1);
    } else {
      text += bytes.substr(0, length);
      bytes.remove_prefix(length);
    }
  }
  return text;
}

std::string json_line(const Notification& notification, std::string_view text, time_t now) {
  const JsonRef root(json_object());
  JsonRef arguments(json_array());
  int failed = 0;
  for (const std::string_view argument : notification.arguments) {
    failed |= json_array_append_new(arguments.get(), text_value(argument).release());
  }
  const auto set = [&root, &failed](const char* key, JsonRef value) {
    failed |= json_object_set_new(root.get(), key, value.release());
  };
  set("time", text_value(iso_time(now)));
  set("category", text_value(notification.category));
  set("message_id", text_value(notification.message_id));
  set("level", text_value(notification.level));
  set("arguments", std::move(arguments));
  set("text", text_value(text));
  const std::unique_ptr<char, decltype(&free)> dump(
      failed == 0 ? json_dumps(root.get(), JSON_COMPACT) : nullptr, &free);
  return dump != nullptr ? std::string(dump.get()) + '\n' : std::string();
}

}  // namespace notify
