// Options of which only some words are a value, of letters of any case.
#pragma once

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <optional>
#include <string_view>

namespace zorvctl {

// Keeps what `read` makes of an option's word; `words` are those that it knows.
template <class Value>
CLI::callback_t one_of(Value& target, std::optional<Value> (*read)(std::string_view),
                       const char* option, const char* words) {
  return [&target, read, option, words](const CLI::results_t& given_words) {
    const auto value = read(CLI::detail::to_lower(given_words.front()));
    if (!value) {
      throw CLI::ValidationError(option,
                                 fmt::format("'{}' is none of {}", given_words.front(), words));
    }
    target = *value;
    return true;
  };
}

}  // namespace zorvctl
