// One log line of 110 characters.
#include "families.h"
#include "floor.h"
#include "logger.h"
#include "recording.h"

namespace bench {
namespace {

LogModule log_module{"zorvd_db_handler"};

void write_line() {
  ZORV_LOG(debug, "sqlite3_exec SELECT Count(*) FROM %s;", "conn_server_log");
}

}  // namespace

void measure_log(Report& report) {
  const std::string line = record(write_line).own_lines.at(0);
  report.compare(
      "one log line", {101, 300}, {.of_floor = 1.1},
      {{Role::ours, "ZORV_LOG", timed(write_line)},
       {Role::floor, "open, write, close of both files", timed([line] { write_line_raw(line); })}});
}

}  // namespace bench
