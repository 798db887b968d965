// The options that say how records are shown, and what showing them needs.
#pragma once

#include <CLI/App.hpp>

#include <optional>
#include <string>

#include "list_options.h"
#include "record_writer.h"

namespace zorvctl {

// -o, -j, --utc and -q. `options` outlives the parser.
void add_output_options(CLI::App& verb, OutputOptions* options);

// For the standard output, a terminal or not.
Style output_style(const OutputOptions& options);

// Keeps an option's text, also an empty one, which is a wrong value and not a missing option.
CLI::callback_t given(std::optional<std::string>& target);

// How far a long fetch has come, on the last line of a terminal.
class Progress {
 public:
  Progress() = default;
  void operator()(unsigned long long read, unsigned long long total);
  void clear();

 private:
  bool is_shown_ = false;
};

}  // namespace zorvctl
