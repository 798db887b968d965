// The time window that statistics are asked for.
#pragma once

#include <CLI/App.hpp>

#include <optional>
#include <string>

#include "statistics.h"

namespace zorvctl {

struct WindowOptions {
  std::optional<std::string> since;
  std::optional<std::string> until;
};

// -S and -U. `options` outlives the parser.
void add_window_options(CLI::App& verb, WindowOptions* options);

// kDone, or kUsage after a complaint that names the wrong word.
int read_window(const WindowOptions& options, Zone zone, Window* ret_window);

}  // namespace zorvctl
