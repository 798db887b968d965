// Every figure of ours beside its floor and its peers, from one run:
// zorv_bench [--quick] [--only NAME] [--json FILE] [--table FILE]
//
// Runs in a root of its own, where it starts the real daemon. The figures go to standard error as
// they come and at the end to standard output as a table. --quick takes fewer and shorter rounds;
// --only runs one family (it may be given more than once).
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include "child.h"
#include "families.h"
#include "harness/test_root.h"

namespace {

struct Family {
  const char* name;
  const char* title;
  void (*measure)(bench::Report& report);
};

constexpr Family kFamilies[] = {
    {"bus", "Bus call", bench::measure_bus},
    {"bus-reply", "Large bus reply", bench::measure_bus_reply},
    {"insert", "Insert", bench::measure_insert},
    {"page", "Page of 100,000 rows", bench::measure_page},
    {"all-rows", "All rows", bench::measure_all_rows},
    {"block", "Block check", bench::measure_block_check},
    {"log", "Log", bench::measure_log},
    {"notification", "Notification", bench::measure_notification},
    {"json", "JSON value", bench::measure_json},
    {"process", "The daemon as a process", bench::measure_process},
    {"growth", "As work grows", bench::measure_growth},
};

struct Options {
  bool quick = false;
  std::vector<std::string> only;
  std::string json;
  std::string table;
};

bool parse(int argc, char** argv, Options& ret_options) {
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    const bool has_value = i + 1 < argc;
    if (name == "--quick") {
      ret_options.quick = true;
    } else if (name == "--only" && has_value) {
      ret_options.only.emplace_back(argv[++i]);
    } else if (name == "--json" && has_value) {
      ret_options.json = argv[++i];
    } else if (name == "--table" && has_value) {
      ret_options.table = argv[++i];
    } else {
      return false;
    }
  }
  return std::all_of(ret_options.only.begin(), ret_options.only.end(), [](const auto& wanted) {
    return std::any_of(std::begin(kFamilies), std::end(kFamilies),
                       [&](const Family& family) { return wanted == family.name; });
  });
}

int usage() {
  fprintf(stderr, "usage: zorv_bench [--quick] [--only NAME] [--json FILE] [--table FILE]\nnames:");
  for (const Family& family : kFamilies) {
    fprintf(stderr, " %s", family.name);
  }
  fprintf(stderr, "\n");
  return 2;
}

std::string first_value(const char* file, const std::string& key) {
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(key)) {
      return line.substr(std::min(line.find(':') + 2, line.size()));
    }
  }
  return "";
}

std::string load() {
  double average[1] = {0};
  getloadavg(average, 1);
  char text[16];
  snprintf(text, sizeof text, "%.1f", average[0]);
  return text;
}

// Where and when, and how much else the machine had to do.
std::string circumstances(const std::string& load_before, time_t start) {
  utsname system{};
  uname(&system);
  char date[32];
  tm local{};
  localtime_r(&start, &local);
  strftime(date, sizeof date, "%Y-%m-%d %H:%M", &local);
  return std::string(date) + ", " + first_value("/proc/cpuinfo", "model name") + ", " +
         std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " processors, Linux " + system.release +
         "; load average " + load_before + " before the run and " + load() + " after it, " +
         std::to_string((time(nullptr) - start) / 60) + " minutes.\n";
}

void write_to(const std::string& path, const std::string& text) {
  if (!path.empty()) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  }
}

int run(const Options& options, int out) {
  const time_t start = time(nullptr);
  const std::string load_before = load();
  bench::inherit_orphans();
  bench::Report report(options.quick);
  int status = EXIT_SUCCESS;
  for (const Family& family : kFamilies) {
    if (!options.only.empty() &&
        std::find(options.only.begin(), options.only.end(), family.name) == options.only.end()) {
      continue;
    }
    report.start_family(family.title);
    try {
      family.measure(report);
    } catch (const std::exception& failure) {
      report.miss(std::string(family.title) + ": " + failure.what());
      status = EXIT_FAILURE;
    }
  }
  const std::string table = circumstances(load_before, start) + report.table();
  write_to(options.table, table);
  write_to(options.json, report.json());
  dprintf(out, "%s", table.c_str());
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) {
    return usage();
  }
  // The table gets standard output to itself; what the started programs say goes elsewhere.
  const int out = dup(STDOUT_FILENO);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  harness::make_test_root();
  const int status = run(options, out);
  harness::remove_test_root();
  return status;
}
