// All 100,000 rows, 520 MB, in the caller's hands; and the memory that takes.
//
// The floor is the three statements stepped in this process, each row written once into a memfd
// through a block that stays in the cache. Its rows are compared with ours before it counts.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "families.h"
#include "floor.h"
#include "harness/daemon.h"
#include "memory.h"
#include "recording.h"
#include "server_log.h"
#include "zorv_api_db.h"

namespace bench {
namespace {

constexpr int kRows = 100000;
constexpr size_t kRowsInBlock = 64 * 1024 / sizeof(db_conn_server_log);

struct FreeRows {
  void operator()(db_conn_server_log* rows) const { free(static_cast<void*>(rows)); }
};
using Rows = std::unique_ptr<db_conn_server_log, FreeRows>;

Rows list_all() {
  db_query_cond cond = page_of(-1, 0, nullptr);
  db_conn_server_log_query result{};
  db_conn_server_log_query* out = &result;
  list_conn_server_log(&cond, &out);
  Rows rows(result.data);
  if (result.count != kRows || result.total != kRows) {
    throw std::runtime_error("not all rows");
  }
  return rows;
}

template <size_t Size>
void put_text(sqlite3_stmt* row, int column, char (&ret_field)[Size]) {
  memcpy(ret_field, sqlite3_column_text(row, column),
         static_cast<size_t>(sqlite3_column_bytes(row, column)));
}

void put_row(sqlite3_stmt* row, db_conn_server_log& record) {
  memset(static_cast<void*>(&record), 0, sizeof record);
  record.id = sqlite3_column_int64(row, 0);
  put_text(row, 1, record.username);
  record.vpn_type = sqlite3_column_int(row, 2);
  record.uptime = static_cast<record_uint64>(sqlite3_column_int64(row, 3));
  record.time = static_cast<record_uint64>(sqlite3_column_int64(row, 4));
  put_text(row, 5, record.device_info);
  put_text(row, 6, record.source_ip);
  put_text(row, 7, record.vpn_ip);
  record.tx_rate = sqlite3_column_int64(row, 8);
  record.rx_rate = sqlite3_column_int64(row, 9);
  record.tx_total = sqlite3_column_int64(row, 10);
  record.rx_total = sqlite3_column_int64(row, 11);
  put_text(row, 12, record.outgoing);
  record.action = sqlite3_column_int(row, 13);
}

// The memfd with the rows of the statement.
int write_rows(sqlite3* db, const std::string& statement) {
  static std::vector<db_conn_server_log> block(kRowsInBlock);
  const int memfd = memfd_create("floor", MFD_CLOEXEC);
  size_t held = 0;
  const auto flush = [&] {
    const size_t size = held * sizeof(db_conn_server_log);
    if (write(memfd, block.data(), size) != static_cast<ssize_t>(size)) {
      throw std::runtime_error("no memory for the floor");
    }
    held = 0;
  };
  Steps steps(db, statement);
  while (steps.next()) {
    put_row(steps.get(), block[held]);
    if (++held == kRowsInBlock) {
      flush();
    }
  }
  flush();
  return memfd;
}

int run_floor(sqlite3* db, const std::vector<std::string>& statements) {
  step_through(db, statements[0]);
  const int memfd = write_rows(db, statements[1]);
  step_through(db, statements[2]);
  return memfd;
}

void check_floor(int memfd) {
  constexpr size_t kSize = kRows * sizeof(db_conn_server_log);
  const Rows rows = list_all();
  void* bytes = mmap(nullptr, kSize, PROT_READ, MAP_SHARED, memfd, 0);
  const bool same = bytes != MAP_FAILED && memcmp(bytes, rows.get(), kSize) == 0;
  munmap(bytes, kSize);
  close(memfd);
  if (!same) {
    throw std::runtime_error("the floor's rows are not ours");
  }
}

}  // namespace

void measure_all_rows(Report& report) {
  fill_server_log(kRows);
  harness::Daemon daemon;
  const Connection db = open_database(harness::kDatabase);
  const auto statements = record([] { list_all(); }).statements;
  check_floor(run_floor(db.get(), statements));
  report.compare("all 100,000 rows", {15, 3}, {.of_floor = 1.5},
                 {{Role::ours, "list_conn_server_log", timed([] { list_all(); })},
                  {Role::floor, "stepped, each row written once into a memfd",
                   timed([&db, statements] { close(run_floor(db.get(), statements)); })}});
  const PeakGrowth growth = peak_growth(getpid(), daemon.process().pid(), list_all);
  const auto add = [&report](const char* whose, double bytes) {
    report.add(std::string("all 100,000 rows, memory of ") + whose, Unit::bytes, {},
               {Result{Role::ours, "list_conn_server_log", {bytes}}});
  };
  add("the caller (the reply and the array)", growth.caller);
  add("the daemon (without the memfd, which is the caller's reply)", growth.server);
}

}  // namespace bench
