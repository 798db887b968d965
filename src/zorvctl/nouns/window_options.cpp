#include "window_options.h"

#include <CLI/CLI.hpp>

#include "exit_status.h"
#include "output_options.h"

namespace zorvctl {

void add_window_options(CLI::App& verb, WindowOptions* options) {
  verb.add_option("-S,--since", given(options->since), "Only from this time on")->type_name("TIME");
  verb.add_option("-U,--until", given(options->until), "Only up to this time")->type_name("TIME");
}

int read_window(const WindowOptions& options, Zone zone, Window* ret_window) {
  Window window;
  int status = read_time("--since", options.since, zone, &window.since);
  if (status == kDone) {
    status = read_time("--until", options.until, zone, &window.until);
  }
  if (status == kDone && window.since && window.until && *window.since > *window.until) {
    complain("--since is later than --until");
    return kUsage;
  }
  if (status == kDone) {
    *ret_window = window;
  }
  return status;
}

}  // namespace zorvctl
