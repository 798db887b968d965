// The daemon's database and what floors do in the daemon's place, each piece as short as its
// contract allows.
#pragma once

#include <sqlite3.h>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "harness/daemon.h"
#include "nc_msg_db.h"
#include "zorv_records.h"

namespace bench {

// What one call of ours wrote and ran, read back from the log: a floor does exactly that again.
struct Recording {
  std::vector<std::string> own_lines;     // by this process, the caller
  std::vector<std::string> daemon_lines;  // by the daemon and whom it called
  std::vector<std::string> statements;    // given to SQLite by the daemon, in order
};

// Runs `call` and reads what was logged meanwhile. The log starts empty with it.
Recording record(const std::function<void()>& call);

// Log lines: for each the lock file and the log opened, the line written with one write, both
// closed. The lines are there already; nothing is formatted.
void write_lines(const std::vector<std::string>& lines);

// A connection's notification and its values.
inline constexpr const zorv::nc_msg_struct* kNotification = zorv::nc_msg("C001", "0017");
inline constexpr auto kNotificationValues =
    std::to_array<const char*>({"2027/01/15 08:00:00", "10:00", "alice", "10.99.0.2", "10.8.0.2",
                                "1.00 KB", "2.00 KB", "OpenVPN", "Logout"});

// That notification's tool started as a grandchild: vfork, close_range, vfork, three streams on
// /dev/null, execve.
void notify_raw();

using Connection = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;

// A connection to the daemon's database or to a copy of it, set up as the store sets up its own.
Connection open_database(const std::string& path = harness::kDatabase);
// The path of a copy, made beside it under that name.
std::string copy_database(const std::string& name);

// Runs statements to their end, as they would be by sqlite3_exec without a callback.
void execute(const Connection& db, const std::vector<std::string>& statements);

// Steps through all rows; `look` reads the columns where they lie.
using Look = std::function<void(sqlite3_stmt* row)>;
void step_through(
    const Connection& db, const std::string& statement, const Look& look = [](sqlite3_stmt*) {});

// Replaces the database by one whose server log holds `rows` rows of 50 users, a second apart; the
// daemon must not run. Its tables are those that the daemon makes.
void fill_server_log(int rows);
// The same for the table of failed logins, of as many users.
void fill_blocks(int rows);

db_conn_server_log sample_record();
// Has the daemon add that record.
void insert_sample();

}  // namespace bench
