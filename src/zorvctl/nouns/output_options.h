// The options that say how records are shown, and what showing them needs.
#pragma once

#include <CLI/App.hpp>

#include <optional>
#include <string>

#include "list_options.h"
#include "record_writer.h"

namespace zorvctl {

// -o, -j, --utc, -q and what else says how records look. `options` outlives the parser. Where the
// fields are named, --columns chooses among them.
void add_output_options(CLI::App& verb, OutputOptions* options,
                        std::span<const zorv::Field> fields = {});

// For a verb's --help: "Fields: time, user, ...", in lines.
std::string fields_sentence(std::span<const zorv::Field> fields);

// --color. `what` is coloured.
void add_color_option(CLI::App& verb, ColorMode* mode, const char* what);

// For the standard output, a terminal or not. Asked before a pager takes its place.
Style output_style(const OutputOptions& options);

// --no-pager, and whether a pager would show it: on a terminal, unless told not to.
void add_pager_option(CLI::App& verb, bool* no_pager);
bool wants_pager(bool no_pager);

// The whole output, through a pager where one is wanted. An exit status.
int print_paged(const std::string& text, bool no_pager);

// Keeps an option's text, also an empty one, which is a wrong value and not a missing option.
CLI::callback_t given(std::optional<std::string>& target);

// How far something long has come, on the last line of a terminal: "2000 of 5000 read".
class Progress {
 public:
  explicit Progress(const char* verb = "read") : verb_(verb) {}
  void operator()(unsigned long long done, unsigned long long total);
  void clear();

 private:
  const char* verb_;
  bool is_shown_ = false;
};

}  // namespace zorvctl
