#include "floor.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "harness/daemon.h"
#include "harness/test_root.h"

extern char** environ;

namespace bench {

void write_line_raw(const std::string& line) {
  static const std::string lock_path = harness::test_root() + "/var/lock/zorv_log.lck";
  static const std::string log_path = harness::test_root() + harness::kLogFile;
  const int lock = open(lock_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0777);
  const int log = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  [[maybe_unused]] const ssize_t written = write(log, line.data(), line.size());
  close(log);
  close(lock);
}

void spawn_raw(const char* file, const char* const* arguments) {
  const pid_t intermediate = vfork();
  if (intermediate == 0) {
    close_range(3, ~0U, 0);
    const pid_t program = vfork();
    if (program == 0) {
      close(0);
      open("/dev/null", O_RDWR);  // takes the lowest number, which is 0
      dup2(0, 1);
      dup2(0, 2);
      execve(file, const_cast<char* const*>(arguments), environ);
      _exit(1);
    }
    _exit(0);
  }
  while (waitpid(intermediate, nullptr, 0) < 0 && errno == EINTR) {
  }
}

Connection open_database(const std::string& path) {
  sqlite3* raw = nullptr;
  if (sqlite3_open((harness::test_root() + path).c_str(), &raw) != SQLITE_OK) {
    throw std::runtime_error("cannot open " + path);
  }
  Connection db(raw);
  sqlite3_busy_timeout(raw, 3000);
  for (const char* pragma :
       {"PRAGMA page_size = 2048;", "PRAGMA synchronous = ON;", "PRAGMA auto_vacuum = FULL;",
        "PRAGMA journal_mode = OFF;", "PRAGMA cache_size = 10000;"}) {
    execute(raw, pragma);
  }
  return db;
}

void execute(sqlite3* db, const std::string& statement) {
  if (sqlite3_exec(db, statement.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    throw std::runtime_error(statement + ": " + sqlite3_errmsg(db));
  }
}

Steps::Steps(sqlite3* db, const std::string& statement) {
  if (sqlite3_prepare_v2(db, statement.c_str(), -1, &statement_, nullptr) != SQLITE_OK) {
    throw std::runtime_error(statement + ": " + sqlite3_errmsg(db));
  }
}

bool Steps::next() {
  const int result = sqlite3_step(statement_);
  if (result != SQLITE_ROW && result != SQLITE_DONE) {
    throw std::runtime_error(sqlite3_errmsg(sqlite3_db_handle(statement_)));
  }
  return result == SQLITE_ROW;
}

void step_through(sqlite3* db, const std::string& statement) {
  Steps steps(db, statement);
  while (steps.next()) {
  }
}

}  // namespace bench
