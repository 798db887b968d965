// The time window that records are asked for.
#pragma once

#include <CLI/App.hpp>

#include "list_options.h"

namespace zorvctl {

// -S and -U. `options` outlives the parser.
void add_window_options(CLI::App& verb, WindowOptions* options);

}  // namespace zorvctl
