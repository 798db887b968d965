#include "output_options.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

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

}  // namespace

void add_output_options(CLI::App& verb, OutputOptions* options) {
  options->output = kFormats.front()->name;
  verb.add_option("-o,--output", options->output, format_names(true))
      ->check(output_format())
      ->type_name("FORMAT");
  verb.add_flag_callback(
      "-j,--json", [options] { options->output = "json"; }, "The same as -o json");
  verb.add_flag("--utc", options->utc, "Times, shown and given, are in UTC");
  verb.add_flag("-q,--quiet", options->quiet, "No heading, and no word about further records");
}

Style output_style(const OutputOptions& options) {
  Style style;
  style.zone = options.zone();
  style.heading = !options.quiet;
  style.terminal = isatty(STDOUT_FILENO) == 1;
  winsize size{};
  if (style.terminal && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
    style.columns = size.ws_col;
  }
  return style;
}

// Keeps an option's text, also an empty one, which is a wrong value and not a missing option.
CLI::callback_t given(std::optional<std::string>& target) {
  return [&target](const CLI::results_t& words) {
    target = words.front();
    return true;
  };
}

void Progress::operator()(unsigned long long read, unsigned long long total) {
  if (isatty(STDERR_FILENO) == 1) {
    fmt::print(stderr, "\r{} of {} read", read, total);
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
