// Codes of a connection record as the words of its notification.
#pragma once

#include <span>

namespace store {

struct CodeWord {
  int code;
  const char* word;
};

// What a notification shows where a value does not apply.
inline constexpr const char* kBlank = " ";

// The word of `code`, or null where the table has none.
constexpr const char* word_of(std::span<const CodeWord> words, int code) {
  for (const CodeWord& entry : words) {
    if (entry.code == code) {
      return entry.word;
    }
  }
  return nullptr;
}

}  // namespace store
