// A page of 50 rows out of 100,000, newest first, by time, and of one user; and all 100,000 rows,
// 520 MB, in the caller's hands, with the memory that takes.
//
// The floor is the three statements that the daemon logged for it, prepared and stepped in this
// process. Of a page no row is looked at; of all rows each is written once into a memfd through a
// block that stays in the cache, and they are compared with ours before they count. The peers of a
// page are programs: the sqlite3 shell with its statement alone, and journalctl on as many entries.
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "descriptor.h"
#include "floor.h"
#include "harness/daemon.h"
#include "harness/test_root.h"
#include "measure.h"
#include "processes.h"
#include "zorv_api_db.h"
#include "zorv_schema.h"

namespace bench {
namespace {

constexpr record_uint64 kRows = 100000;
constexpr record_int64 kPage = 50;
constexpr record_int64 kById = 0;
constexpr record_int64 kNewestFirst = 1;

using Rows = std::unique_ptr<db_conn_server_log, decltype(&free)>;

Rows list(db_query_cond cond, record_uint64 count) {
  db_conn_server_log_query result{};
  db_conn_server_log_query* out = &result;
  list_conn_server_log(&cond, &out);
  require(result.count == count && result.total == kRows, "not the rows of the query");
  return {result.data, free};
}

Rows list_all() {
  return list({0, -1, kById, kNewestFirst, "", ""}, kRows);
}

// The statements that the daemon runs for a query: before the rows, the rows, after them.
std::vector<std::string> statements_of(const std::function<void()>& query) {
  auto statements = record(query).statements;
  require(statements.size() == 3, "not three statements");
  return statements;
}

// A journal file with an entry a row; its path.
std::string make_journal() {
  std::string journal = harness::test_root() + "/bench.journal";
  const std::string source = harness::test_root() + "/entries";
  std::ofstream entries(source);
  for (unsigned i = 1; i <= kRows; ++i) {
    entries << fmt::format(
        "__REALTIME_TIMESTAMP={0}000000\n__MONOTONIC_TIMESTAMP={1}000000\n_BOOT_ID={2:032}\n"
        "_MACHINE_ID={2:032}\nSYSLOG_IDENTIFIER=openvpn\nPRIORITY=6\nUSERNAME=user{3}\n"
        "DEVICE_INFO=linux 6.1, OpenVPN 2.6.3\nSOURCE_IP=10.99.0.2\nVPN_IP=10.8.0.{4}\n"
        "TX_TOTAL={1}000\nRX_TOTAL={5}000\nMESSAGE=user{3} logged in\n\n",
        1700000000 + i, i, 12345, i % 50, i % 250, 2 * i);
  }
  entries.close();
  run_program({"/lib/systemd/systemd-journal-remote", "-o", journal, source});
  return journal;
}

// `journalctl` gives the same page, where it has such an order.
void measure_page_of(Report& report, const char* work, const db_query_cond& cond,
                     const std::vector<std::string>& journalctl) {
  const auto list_page = [&cond] { list(cond, record_uint64{kPage}); };
  const auto statements = statements_of(list_page);
  const Connection db = open_database();
  const auto step_all = [&] {
    for (const std::string& statement : statements) {
      step_through(db, statement);
    }
  };
  const std::string database = harness::test_root() + harness::kDatabase;
  const auto run_shell = [&] {
    run_program({"/usr/bin/sqlite3", "-json", database, statements[1]});
  };
  std::vector<Contender> contenders{
      {"ours", list_page}, {"floor", step_all}, {"sqlite3 shell", run_shell}};
  if (!journalctl.empty()) {
    contenders.push_back({"journalctl", [&journalctl] { run_program(journalctl); }});
  }
  report.compare(work, 15, 8, {.of_floor = 1.2}, contenders);
}

// The columns of a row as the members of its record.
void put_row(sqlite3_stmt* row, db_conn_server_log& ret_record) {
  memset(static_cast<void*>(&ret_record), 0, sizeof ret_record);
  int column = 0;
  for (const zorv::Field& field : zorv::kServerLog.fields) {
    void* const member = field.member(&ret_record);
    if (field.is_text()) {
      const auto size = static_cast<size_t>(sqlite3_column_bytes(row, column));
      memcpy(member, sqlite3_column_text(row, column), size);
    } else {
      const record_int64 number = sqlite3_column_int64(row, column);
      memcpy(member, &number, field.size);
    }
    ++column;
  }
}

// The memfd with all rows.
os::Descriptor run_floor(const Connection& db, const std::vector<std::string>& statements) {
  static std::vector<db_conn_server_log> block(64 * 1024 / sizeof(db_conn_server_log));
  os::Descriptor memfd(memfd_create("floor", MFD_CLOEXEC));
  size_t held = 0;
  const auto flush = [&] {
    const size_t size = std::exchange(held, 0) * sizeof block[0];
    require(write(memfd.get(), block.data(), size) == static_cast<ssize_t>(size),
            "no memory for the floor");
  };
  step_through(db, statements[0]);
  step_through(db, statements[1], [&](sqlite3_stmt* row) {
    put_row(row, block[held]);
    if (++held == block.size()) {
      flush();
    }
  });
  flush();
  step_through(db, statements[2]);
  return memfd;
}

void check_floor(const os::Descriptor& memfd) {
  constexpr size_t kSize = kRows * sizeof(db_conn_server_log);
  const Rows rows = list_all();
  void* bytes = mmap(nullptr, kSize, PROT_READ, MAP_SHARED, memfd.get(), 0);
  const bool same =
      bytes != MAP_FAILED && memcmp(bytes, static_cast<const void*>(rows.get()), kSize) == 0;
  munmap(bytes, kSize);
  require(same, "the floor's rows are not ours");
}

}  // namespace

void measure_page(Report& report) {
  fill_server_log(kRows);
  std::vector<std::string> journalctl{"/usr/bin/journalctl", "--file=" + make_journal(), "-o",
                                      "json", "-n50"};
  const harness::Daemon daemon;
  const record_int64 by_time = zorv::kServerLog.index_of(*zorv::kServerLog.time);
  measure_page_of(report, "page of 50, newest first", {0, kPage, kById, kNewestFirst, "", ""},
                  journalctl);
  measure_page_of(report, "page of 50 by time", {0, kPage, by_time, kNewestFirst, "", ""}, {});
  journalctl.push_back("USERNAME=user7");
  measure_page_of(report, "page of 50, one user",
                  {0, kPage, kById, kNewestFirst, "username", "user7"}, journalctl);
}

void measure_all_rows(Report& report) {
  fill_server_log(kRows);
  harness::Daemon daemon;
  const Connection db = open_database();
  const auto statements = statements_of(list_all);
  check_floor(run_floor(db, statements));
  report.compare("all 100,000 rows", 15, 3, {.of_floor = 1.5},
                 {{"ours", [] { list_all(); }}, {"floor", [&] { run_floor(db, statements); }}});
  const PeakGrowth growth = peak_growth(getpid(), daemon.process().pid(), list_all);
  report.add("all 100,000 rows, memory of the caller (the reply and the array)", Unit::bytes, {},
             {{"ours", {growth.caller}}});
  report.add(
      "all 100,000 rows, memory of the daemon (without the memfd, which is the caller's reply)",
      Unit::bytes, {}, {{"ours", {growth.server}}});
}

}  // namespace bench
