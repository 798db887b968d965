#include "value_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <limits>

#include "display_text.h"
#include "duration.h"
#include "whole_number.h"

namespace zorvctl {
namespace {

using Words = std::span<const zorv::CodeWord>;

// Of an unsigned number: the database keeps larger ones as inexact reals.
constexpr record_uint64 kLargestKept = std::numeric_limits<record_int64>::max();

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

std::string lower_case(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return result;
}

std::string time_value(record_uint64 seconds, Zone zone, Form form) {
  switch (form) {
    case Form::compact:
      return short_time_text(seconds, zone, std::time(nullptr));
    case Form::iso:
      return iso_time_text(seconds, zone);
    case Form::full:
      break;
  }
  return time_text(seconds, zone);
}

constexpr long long kExactUpTo = 9999;

std::string scaled_bytes(long long bytes, const char* gap, const char* letter) {
  constexpr char kUnits[] = "KMGTPE";
  double value = static_cast<double>(bytes) / 1024;
  const char* unit = kUnits;
  // 1023.95 would be printed as 1024.0.
  while (value >= 1023.95 && unit[1] != '\0') {
    value /= 1024;
    ++unit;
  }
  return fmt::format("{:.1f}{}{}{}", value, gap, *unit, letter);
}

// A plain number that the field holds.
bool read_number(const Field& field, std::string_view text, FieldValue* ret) {
  if (field.type == zorv::FieldType::uint64) {
    record_uint64 number = 0;
    const bool kept = whole_number(text, &number) && number <= kLargestKept;
    *ret = kept ? number : *ret;
    return kept;
  }
  record_int64 number = 0;
  const bool held = whole_number(text, &number) &&
                    (field.type == zorv::FieldType::int64 || number == static_cast<int>(number));
  *ret = held ? number : *ret;
  return held;
}

}  // namespace

std::string number_digits(const FieldValue& value) {
  if (std::holds_alternative<std::monostate>(value)) {
    return "";
  }
  if (const auto* number = std::get_if<record_int64>(&value)) {
    return fmt::to_string(*number);
  }
  return fmt::to_string(std::get<record_uint64>(value));
}

std::string bytes_text(long long bytes) {
  return bytes <= kExactUpTo ? fmt::format("{} B", bytes) : scaled_bytes(bytes, " ", "B");
}

std::string short_bytes_text(long long bytes) {
  return bytes <= kExactUpTo ? fmt::to_string(bytes) : scaled_bytes(bytes, "", "");
}

std::string shown_value(const Field& field, const FieldValue& value, Zone zone, Form form) {
  const bool is_compact = form == Form::compact;
  if (std::holds_alternative<std::monostate>(value)) {
    return form == Form::iso ? "" : "-";
  }
  if (field.is_word()) {
    return std::string(std::get<std::string_view>(value));
  }
  switch (field.meaning) {
    case Meaning::text:
    case Meaning::address:
    case Meaning::addresses:
      return display_text(std::get<std::string_view>(value));
    case Meaning::bytes:
      return (is_compact ? short_bytes_text : bytes_text)(std::get<record_int64>(value));
    case Meaning::seconds:
      return (is_compact ? short_duration_text : duration_text)(std::get<record_uint64>(value));
    case Meaning::time:
      return time_value(std::get<record_uint64>(value), zone, form);
    case Meaning::code:
      if (const char* word = zorv::word_of(field.words, std::get<record_int64>(value))) {
        const std::string_view whole = word;
        return std::string(is_compact ? whole.substr(0, whole.find('/')) : whole);
      }
      break;
    case Meaning::number:
      break;
  }
  return number_digits(value);
}

std::string typed_value(const Field& field, const FieldValue& value) {
  if (const auto* text = std::get_if<std::string_view>(&value)) {
    return field.is_text() ? std::string(*text) : typed(*text);
  }
  const auto* code = std::get_if<record_int64>(&value);
  const char* const word = code != nullptr ? zorv::word_of(field.words, *code) : nullptr;
  return word != nullptr ? typed(word) : number_digits(value);
}

bool is_same_typed(std::string_view one, std::string_view other, bool front_only) {
  return front_only ? folded(other).starts_with(folded(one)) : folded(one) == folded(other);
}

const Field* field_called(std::span<const Field> fields, std::string_view word) {
  for (const auto& name_of :
       {typed_name, +[](const Field& field) -> std::string { return field.name; }}) {
    for (const Field& field : fields) {
      if (!word.empty() && is_same_typed(word, name_of(field))) {
        return &field;
      }
    }
  }
  return nullptr;
}

std::string typed_name(const Field& field) {
  std::string name = lower_case(field.heading != nullptr ? field.heading : field.name);
  std::replace(name.begin(), name.end(), '_', '-');
  return name;
}

std::string heading_of(const Field& field) {
  std::string name = typed_name(field);
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return name;
}

std::vector<const Field*> main_fields(std::span<const Field> fields) {
  std::vector<const Field*> placed;
  std::vector<const Field*> headed;
  for (const Field& field : fields) {
    if (field.place.column != 0) {
      placed.push_back(&field);
    }
    if (field.heading != nullptr) {
      headed.push_back(&field);
    }
  }
  std::sort(placed.begin(), placed.end(), [](const Field* one, const Field* other) {
    return one->place.column < other->place.column;
  });
  return placed.empty() ? headed : placed;
}

std::string field_names(std::span<const Field> fields) {
  std::vector<const Field*> all = main_fields(fields);
  for (const Field& field : fields) {
    if (std::find(all.begin(), all.end(), &field) == all.end()) {
      all.push_back(&field);
    }
  }
  std::string names;
  for (const Field* field : all) {
    names += (names.empty() ? "" : ", ") + typed_name(*field);
  }
  return names;
}

std::string value_hint(const Field& field) {
  switch (field.meaning) {
    case Meaning::text:
    case Meaning::address:
    case Meaning::addresses:
      return fmt::format("text of at most {} bytes", field.size - 1);
    case Meaning::number:
      return "a whole number";
    case Meaning::bytes:
      return "a whole number of bytes";
    case Meaning::seconds:
      return "seconds, or a duration such as 1h30m";
    case Meaning::time:
      return "a time such as \"2026-11-21 04:10\", yesterday, 2h or @1795234206 (or the number)";
    case Meaning::code:
      break;
  }
  std::string hint;
  for (const zorv::CodeWord& word : field.words) {
    hint += (hint.empty() ? "" : ", ") + typed(word.word);
  }
  return field.is_word() ? hint : hint + ", or the number";
}

int read_value(const Field& field, std::string_view text, time_t now, Zone zone, FieldValue* ret,
               std::string* ret_error) {
  if (field.is_text()) {
    if (text.size() >= field.size) {
      *ret_error = fmt::format("{} bytes are too many, {} holds at most {}", text.size(),
                               field.name, field.size - 1);
      return -1;
    }
    *ret = text;
    return 0;
  }
  if (!field.is_word() && read_number(field, text, ret)) {
    return 0;
  }
  unsigned long long seconds = 0;
  const bool is_seconds =
      (field.meaning == Meaning::time && parse_time(text, now, zone, &seconds) == 0) ||
      (field.meaning == Meaning::seconds && parse_duration(text, &seconds) == 0);
  if (is_seconds && seconds <= kLargestKept) {
    *ret = seconds;
    return 0;
  }
  if (const zorv::CodeWord* word = word_by_text(field.words, text); word != nullptr) {
    *ret = field.is_word() ? FieldValue(std::string_view(word->word)) : record_int64{word->code};
    return 0;
  }
  *ret_error = fmt::format("'{}' is not a value of {}: {}", display_text(text), field.name,
                           value_hint(field));
  return -1;
}

}  // namespace zorvctl
