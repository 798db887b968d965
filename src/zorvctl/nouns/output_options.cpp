#include "output_options.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <sstream>

#include "display_text.h"
#include "exit_status.h"
#include "pager.h"
#include "value_text.h"
#include "whole_number.h"
#include "word_option.h"

namespace zorvctl {
namespace {

// "table, json (one object a line) or csv", or with commas alone and no remarks.
std::string format_names(bool for_help) {
  std::string names;
  for (const Format* format : kFormats) {
    const bool last = format == kFormats.back();
    names += names.empty() ? "" : for_help && last ? " or " : ", ";
    names += format->name;
    if (for_help && *format->remark != '\0') {
      names += fmt::format(" ({})", format->remark);
    }
  }
  return names;
}

CLI::Validator output_format() {
  return {[](std::string& text) -> std::string {
            return find_format(text) != nullptr
                       ? ""
                       : fmt::format("'{}' is none of {}", text, format_names(false));
          },
          ""};
}

// Broken between words, for a screen of 80 columns.
std::string wrapped(const std::string& text) {
  constexpr size_t kWidth = 80;
  std::string result;
  size_t line = 0;
  while (text.size() - line > kWidth) {
    const size_t blank = text.rfind(' ', line + kWidth);
    result += text.substr(line, blank - line) + "\n";
    line = blank + 1;
  }
  return result + text.substr(line);
}

// Once the whole line was read.
void complain_of_pairs(const OutputOptions& options) {
  if (options.readable && options.output != "csv") {
    throw CLI::ValidationError("--readable", "goes with -o csv only");
  }
}

std::vector<std::string> split(const std::string& words) {
  std::vector<std::string> names;
  std::istringstream stream(words + ",");
  for (std::string name; std::getline(stream, name, ',');) {
    names.push_back(name);
  }
  return names;
}

CLI::Validator column_names(std::span<const zorv::Field> fields) {
  return {[=](std::string& text) -> std::string {
            for (const std::string& name : split(text)) {
              if (field_called(fields, name) == nullptr) {
                return fmt::format("'{}' is none of {}", name, field_names(fields));
              }
            }
            return "";
          },
          ""};
}

// As a shell that was told of it says, or the terminal itself.
unsigned terminal_columns() {
  constexpr unsigned kUsual = 80;
  const char* const told = std::getenv("COLUMNS");
  unsigned columns = 0;
  if (told != nullptr && whole_number(told, &columns) && columns != 0) {
    return columns;
  }
  winsize size{};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
  return known ? size.ws_col : kUsual;
}

}  // namespace

void add_output_options(CLI::App& verb, OutputOptions* options,
                        std::span<const zorv::Field> fields) {
  options->output = kFormats.front()->name;
  verb.add_option("-o,--output", options->output, format_names(true))
      ->check(output_format())
      ->type_name("FORMAT");
  verb.add_flag_callback(
      "-j,--json", [options] { options->output = "json"; }, "The same as -o json");
  if (!fields.empty()) {
    verb.add_option_function<std::string>(
            "--columns", [options](const std::string& words) { options->columns = split(words); },
            "These fields, in this order")
        ->check(column_names(fields))
        ->type_name("FIELD,...");
  }
  verb.add_flag("--readable", options->readable, "csv for people: words, local times, units");
  verb.add_flag("--utc", options->utc, "Times, shown and given, are in UTC");
  add_color_option(verb, &options->color, "Failures and blocks");
  add_pager_option(verb, &options->no_pager);
  verb.add_flag("-q,--quiet", options->quiet, "No heading, and no word about further records");
  verb.parse_complete_callback([options] { complain_of_pairs(*options); });
}

std::string fields_sentence(std::span<const zorv::Field> fields) {
  return wrapped("Fields: " + field_names(fields) + ".");
}

Style output_style(const OutputOptions& options) {
  Style style;
  style.zone = options.zone();
  style.heading = !options.quiet;
  style.terminal = isatty(STDOUT_FILENO) == 1;
  style.columns = style.terminal ? terminal_columns() : 0;
  style.utf8 = is_utf8_locale();
  style.color = is_colored(options.color);
  style.readable = options.readable;
  style.chosen = options.columns;
  return style;
}

void add_color_option(CLI::App& verb, ColorMode* mode, const char* what) {
  verb.add_option(
          "--color", one_of(*mode, color_mode_of, "--color", kColorWords),
          fmt::format("{} in colour: {}; auto, on a terminal, if not given", what, kColorWords))
      ->type_name("WHEN");
}

void add_pager_option(CLI::App& verb, bool* no_pager) {
  verb.add_flag("--no-pager", *no_pager, "Not through a pager, which a terminal has");
}

bool wants_pager(bool no_pager) {
  return !no_pager && isatty(STDOUT_FILENO) == 1;
}

int print_paged(const std::string& text, bool no_pager) {
  const Pager pager(wants_pager(no_pager));
  return print(text) && flush_output() ? kDone : kFailed;
}

// Keeps an option's text, also an empty one, which is a wrong value and not a missing option.
CLI::callback_t given(std::optional<std::string>& target) {
  return [&target](const CLI::results_t& words) {
    target = words.front();
    return true;
  };
}

void Progress::operator()(unsigned long long done, unsigned long long total) {
  if (isatty(STDERR_FILENO) == 1 && !output_is_paged) {
    fmt::print(stderr, "\r{} of {} {}", done, total, verb_);
    is_shown_ = true;
  }
}

void Progress::clear() {
  if (is_shown_) {
    fmt::print(stderr, "\r\x1b[K");
    is_shown_ = false;
  }
}

}  // namespace zorvctl
