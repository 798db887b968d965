// The pieces that floors are made of, each as short as its contract allows.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

namespace bench {

// A log line: the lock file and the log opened, the line written with one write, both closed. The
// line is there already; nothing is formatted.
void write_line_raw(const std::string& line);

// A program started as a grandchild: vfork, close_range, vfork, three streams on /dev/null, execve.
// `arguments` ends with a null pointer.
void spawn_raw(const char* file, const char* const* arguments);

struct CloseConnection {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;

// A connection to a database file below the root, set up as the store sets up its own.
Connection open_database(const std::string& path);
// Runs a statement to its end, as it would be by sqlite3_exec without a callback.
void execute(sqlite3* db, const std::string& statement);

// A statement that is stepped; its columns are read where they lie.
class Steps {
 public:
  Steps(sqlite3* db, const std::string& statement);
  Steps(const Steps&) = delete;
  Steps& operator=(const Steps&) = delete;
  ~Steps() { sqlite3_finalize(statement_); }

  bool next();
  sqlite3_stmt* get() const { return statement_; }

 private:
  sqlite3_stmt* statement_ = nullptr;
};

// Steps through all rows and looks at none.
void step_through(sqlite3* db, const std::string& statement);

}  // namespace bench
