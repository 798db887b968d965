#include "window_options.h"

#include <CLI/CLI.hpp>

#include "output_options.h"

namespace zorvctl {

void add_window_options(CLI::App& verb, WindowOptions* options) {
  verb.add_option("-S,--since", given(options->since), "Only from this time on")->type_name("TIME");
  verb.add_option("-U,--until", given(options->until), "Only up to this time")->type_name("TIME");
}

}  // namespace zorvctl
