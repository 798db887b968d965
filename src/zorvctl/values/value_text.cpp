#include "value_text.h"

#include <fmt/format.h>

#include <cctype>

#include "display_text.h"
#include "duration.h"
#include "whole_number.h"
#include "zorv_connection_codes.h"

namespace zorvctl {
namespace {

using Words = std::span<const zorv::CodeWord>;

Words words_of(Kind kind) {
  switch (kind) {
    case Kind::server_protocol:
      return zorv::kServerProtocols;
    case Kind::client_protocol:
      return zorv::kClientProtocols;
    case Kind::server_action:
      return zorv::kServerActions;
    case Kind::client_action:
      return zorv::kClientActions;
    default:
      return {};
  }
}

// As it is typed: "Login OK" as login-ok, "L2TP/IPSec" as l2tp.
std::string typed(std::string_view word) {
  std::string result;
  for (const char c : word.substr(0, word.find('/'))) {
    result += c == ' ' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return result;
}

// Letters and digits only, in lower case: "Login OK", "login-ok" and "LOGIN_OK" are one word.
std::string folded(std::string_view text) {
  std::string result;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) != 0) {
      result += static_cast<char>(std::tolower(byte));
    }
  }
  return result;
}

const zorv::CodeWord* word_by_text(Words words, std::string_view text) {
  const std::string wanted = folded(text);
  for (const zorv::CodeWord& word : words) {
    if (wanted == folded(word.word) || wanted == folded(typed(word.word))) {
      return &word;
    }
  }
  return nullptr;
}

// A plain number within the column's limits.
bool read_number(const Column& column, std::string_view text, Value* ret) {
  if (column.lowest < 0) {
    long long number = 0;
    if (!whole_number(text, &number) || number < column.lowest ||
        (number > 0 && static_cast<unsigned long long>(number) > column.highest)) {
      return false;
    }
    *ret = number;
    return true;
  }
  unsigned long long number = 0;
  if (!whole_number(text, &number) || number > column.highest) {
    return false;
  }
  *ret = number;
  return true;
}

}  // namespace

std::string number_digits(const Value& value) {
  if (const auto* number = std::get_if<long long>(&value)) {
    return fmt::to_string(*number);
  }
  return fmt::to_string(std::get<unsigned long long>(value));
}

std::string bytes_text(long long bytes) {
  constexpr long long kExactUpTo = 9999;
  constexpr const char* kUnits[] = {"KB", "MB", "GB", "TB", "PB", "EB"};
  if (bytes <= kExactUpTo) {
    return fmt::format("{} B", bytes);
  }
  double value = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  // 1023.95 would be printed as 1024.0.
  while (value >= 1023.95 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string shown_value(const Column& column, const Value& value, Zone zone) {
  switch (column.kind) {
    case Kind::text:
      return display_text(std::get<std::string_view>(value));
    case Kind::integer:
      return number_digits(value);
    case Kind::bytes:
      return bytes_text(std::get<long long>(value));
    case Kind::duration:
      return duration_text(std::get<unsigned long long>(value));
    case Kind::time:
      return time_text(std::get<unsigned long long>(value), zone);
    case Kind::server_protocol:
    case Kind::client_protocol:
    case Kind::server_action:
    case Kind::client_action:
      break;
  }
  const char* word = zorv::word_of(words_of(column.kind), std::get<long long>(value));
  return word != nullptr ? word : number_digits(value);
}

std::string value_hint(const Column& column) {
  switch (column.kind) {
    case Kind::text:
      return fmt::format("text of at most {} bytes", column.capacity);
    case Kind::integer:
      return "a whole number";
    case Kind::bytes:
      return "a whole number of bytes";
    case Kind::duration:
      return "seconds, or a duration such as 1h30m";
    case Kind::time:
      return "a time such as \"2026-11-21 04:10\", yesterday, 2h or @1795234206 (or the number)";
    default:
      break;
  }
  std::string hint;
  for (const zorv::CodeWord& word : words_of(column.kind)) {
    hint += typed(word.word) + ", ";
  }
  return hint + "or the number";
}

int read_value(const Column& column, std::string_view text, time_t now, Zone zone, Value* ret,
               std::string* ret_error) {
  if (column.kind == Kind::text) {
    if (text.size() > column.capacity) {
      *ret_error = fmt::format("{} bytes are too many, {} holds at most {}", text.size(),
                               column.name, column.capacity);
      return -1;
    }
    *ret = text;
    return 0;
  }
  if (read_number(column, text, ret)) {
    return 0;
  }
  unsigned long long seconds = 0;
  const bool is_seconds =
      (column.kind == Kind::time && parse_time(text, now, zone, &seconds) == 0) ||
      (column.kind == Kind::duration && parse_duration(text, &seconds) == 0);
  if (is_seconds && seconds <= column.highest) {
    *ret = seconds;
    return 0;
  }
  if (const zorv::CodeWord* word = word_by_text(words_of(column.kind), text); word != nullptr) {
    *ret = static_cast<long long>(word->code);
    return 0;
  }
  *ret_error = fmt::format("'{}' is not a value of {}: {}", display_text(text), column.name,
                           value_hint(column));
  return -1;
}

}  // namespace zorvctl
