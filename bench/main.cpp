// Every figure of ours beside its floor and its peers, from one run:
// zorv_bench [--quick] [--only NAME]... [--json FILE]
//
// Runs in a root of its own, where it starts the real daemon. The figures go to standard error as
// they come and at the end to standard output as a table. Exit status 0 when every family ran.
#include <fmt/format.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "harness/test_root.h"
#include "measure.h"

namespace {

struct Family {
  const char* name;
  const char* title;
  bool on_one_processor;
  void (*measure)(bench::Report& report);
};

constexpr Family kFamilies[] = {
    {"bus", "Bus call", true, bench::measure_bus},
    {"bus-reply", "Large bus reply", true, bench::measure_bus_reply},
    {"insert", "Insert", true, bench::measure_insert},
    {"page", "Page of 100,000 rows", false, bench::measure_page},
    {"all-rows", "All rows", false, bench::measure_all_rows},
    {"block", "Block check", false, bench::measure_block_check},
    {"log", "Log", false, bench::measure_log},
    {"notification", "Notification", true, bench::measure_notification},
    {"json", "JSON value", false, bench::measure_json},
    {"process", "The daemon as a process", false, bench::measure_process},
    {"growth", "As work grows", true, bench::measure_inserts},
    {"growth", "As work grows", false, bench::measure_clients},
};

// Keeps this process, and whom it starts, on the processor where it is. Where the scheduler puts
// the two sides of an exchange, or a program that is started, decides more about its time than what
// they do: waking an idle processor of a virtual machine takes up to 0.7 ms.
void stay_here() {
  cpu_set_t here;
  CPU_ZERO(&here);
  CPU_SET(sched_getcpu(), &here);
  sched_setaffinity(0, sizeof here, &here);
}

// True when every family ran.
bool measure(bench::Report& report, const std::vector<std::string>& only) {
  bool all_ran = true;
  cpu_set_t anywhere;
  sched_getaffinity(0, sizeof anywhere, &anywhere);
  for (const Family& family : kFamilies) {
    if (!only.empty() && std::find(only.begin(), only.end(), family.name) == only.end()) {
      continue;
    }
    report.start_family(family.title);
    try {
      if (family.on_one_processor) {
        stay_here();
      }
      family.measure(report);
    } catch (const std::exception& failure) {
      report.miss(fmt::format("{}: {}", family.title, failure.what()));
      all_ran = false;
    }
    sched_setaffinity(0, sizeof anywhere, &anywhere);
  }
  return all_ran;
}

}  // namespace

int main(int argc, char** argv) {
  std::set<std::string> names;
  for (const Family& family : kFamilies) {
    names.insert(family.name);
  }
  CLI::App app("Every figure beside its floor and its peers.");
  bool quick = false;
  std::vector<std::string> only;
  std::string json;
  app.add_flag("--quick", quick, "Fewer and shorter rounds");
  app.add_option("--only", only, "A family to run; may be repeated")->check(CLI::IsMember(names));
  app.add_option("--json", json, "Where the figures go in full");
  CLI11_PARSE(app, argc, argv);

  // The table gets standard output to itself; what the started programs say goes elsewhere.
  const int out = dup(STDOUT_FILENO);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  const harness::TestRoot root;
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // waits for the tools that are started detached
  bench::Report report(quick);
  const bool all_ran = measure(report, only);
  if (!json.empty()) {
    std::ofstream(json, std::ios::trunc) << report.json();
  }
  dprintf(out, "%s", report.table().c_str());
  return all_ran ? EXIT_SUCCESS : EXIT_FAILURE;
}
