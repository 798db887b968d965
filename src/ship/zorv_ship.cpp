// zorv-ship: keeps the connection logs of this NAS in a PostgreSQL database, too.

#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <climits>
#include <exception>

#include "complaint.h"
#include "schema.h"
#include "server.h"
#include "shipper.h"
#include "upkeep.h"

namespace {

constexpr const char* kFooter =
    "Examples:\n"
    "  zorv-ship --schema | psql service=vpnlogs-owner      make or renew the tables\n"
    "  zorv-ship --to service=vpnlogs --follow              ship, and go on shipping\n"
    "  zorv-ship --to service=vpnlogs --status              how far it is\n"
    "  zorv-ship --to service=vpnlogs-owner --prune 400d    drop what is older\n\n"
    "Exit status: 0 done, 1 the server failed or refused, 2 wrong words, 3 the daemon does not "
    "answer,\n"
    "4 another machine ships under this name.";

std::string host_name() {
  char name[HOST_NAME_MAX + 1] = "";
  gethostname(name, sizeof name - 1);
  return name;
}

std::string check_connection(const std::string& to) {
  std::string complaint;
  if (ship::holds_password(to, &complaint)) {
    return "a password there can be read by every user of this machine: keep it in a password file";
  }
  return complaint;
}

// The name is that of a role of the server's.
std::string check_name(const std::string& name) {
  constexpr size_t kLongestRole = 63;
  return !name.empty() && name.size() <= kLongestRole ? "" : "a name has 1 to 63 bytes";
}

std::string check_keep(const std::string& keep) {
  return ship::interval_of(keep).empty() ? "'" + keep + "' is not like 400d, 60w, 13m or 2y" : "";
}

int run(int count, char** words) {
  CLI::App program("Ships the connection logs of this NAS to a PostgreSQL database, each row once.",
                   "zorv-ship");
  ship::ShipOptions options;
  options.name = host_name();
  bool schema = false;
  bool status = false;
  unsigned shards = 0;
  std::string keep;
  program
      .add_option(
          "--to", options.to,
          "The database, as libpq takes it: service=NAME, host=... (its environment if not given)")
      ->type_name("CONNECTION")
      ->check(check_connection);
  CLI::Option* const name =
      program.add_option("--name", options.name, "Under which the rows of this NAS are kept")
          ->type_name("NAME")
          ->check(check_name)
          ->capture_default_str();
  program.add_flag("--follow", options.follow, "Go on, and ship new rows as they come");
  program
      .add_option("--interval", options.interval, "Seconds from one look for new rows to the next")
      ->check(CLI::Range(1, 3600))
      ->capture_default_str();
  program.add_option("--page", options.page, "Rows in memory at most, and in one transaction")
      ->check(CLI::Range(100, 20000))
      ->capture_default_str();
  program.add_flag("--take-over", options.take_over,
                   "This machine takes the place of another one of that name");
  CLI::Option* const print_schema =
      program.add_flag("--schema", schema, "Print the SQL that makes or renews the tables");
  program
      .add_option("--shards", shards, "With --schema: tables spread over so many foreign servers")
      ->check(CLI::Range(1, 64))
      ->type_name("N")
      ->needs(print_schema);
  CLI::Option* const print_status = program.add_flag(
      "--status", status, "Print how far it is: with --name of one NAS, otherwise of all");
  program.add_option("--prune", keep, "Drop the months that are older, make those to come")
      ->type_name("AGE")
      ->check(check_keep)
      ->excludes(print_status)
      ->excludes(print_schema);
  print_status->excludes(print_schema);
  program.set_version_flag("--version", "zorv-ship " ZORV_VERSION, "Print the version");
  program.footer(kFooter);
  try {
    program.parse(count, words);
  } catch (const CLI::ParseError& error) {
    return program.exit(error) == 0 ? ship::kDone : ship::kUsage;
  }
  signal(SIGPIPE, SIG_IGN);
  if (schema) {
    const std::string text = ship::schema_text(shards);
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    return written && std::fflush(stdout) == 0 ? ship::kDone : ship::kFailed;
  }
  if (status) {
    return ship::print_status(options.to, name->count() != 0 ? options.name : "");
  }
  return keep.empty() ? ship::ship_logs(options) : ship::prune(options.to, keep);
}

}  // namespace

int main(int count, char** words) {
  try {
    return run(count, words);
  } catch (const std::exception& error) {
    ship::tell("{}", error.what());
    return ship::kFailed;
  }
}
