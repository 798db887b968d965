#include "floor.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <stdexcept>

#include "harness/test_root.h"
#include "kxbus.h"
#include "measure.h"
#include "zorv_api_db.h"

namespace bench {
namespace {

void require_status(int expected, int result, const Connection& db, const std::string& what) {
  if (result != expected) {
    throw std::runtime_error(what + ": " + sqlite3_errmsg(db.get()));
  }
}

std::vector<const char*> notification_words() {
  const auto fixed = std::to_array<const char*>(
      {"/usr/local/sbin/notify", "send", "-A", "A238", "-C", kNotification->category_id, "-M",
       kNotification->message_id, "-l", kNotification->level, "-t", "3", kNotification->message,
       "ZORV Service"});
  std::vector<const char*> words(fixed.begin(), fixed.end());
  words.insert(words.end(), kNotificationValues.begin(), kNotificationValues.end());
  words.push_back(nullptr);
  return words;
}

// `values` may name the row's number, i.
void fill(int rows, const char* table, const char* columns, const char* values) {
  std::filesystem::remove(harness::test_root() + harness::kDatabase);
  harness::Daemon().stop();  // makes the tables
  if (rows > 0) {
    harness::insert_rows(table, rows, columns, values);
  }
}

}  // namespace

Recording record(const std::function<void()>& call) {
  harness::write_file(harness::kLogFile, "");
  call();
  const std::string text = harness::read_file(harness::kLogFile);
  static const std::regex prefix(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d (\d+) \[[A-Z]+\] \w+ \[\d+\] )");
  static const std::string statement_text = ":sqlite3_exec ";
  Recording recording;
  for (std::sregex_iterator match(text.begin(), text.end(), prefix), end; match != end;) {
    const auto from = static_cast<size_t>(match->position());
    const bool own = (*match)[1] == std::to_string(getpid());
    ++match;
    const size_t to = match != end ? static_cast<size_t>(match->position()) : text.size();
    const std::string line = text.substr(from, to - from);
    (own ? recording.own_lines : recording.daemon_lines).push_back(line);
    if (const size_t at = line.find(statement_text); at != std::string::npos) {
      recording.statements.push_back(line.substr(at + statement_text.size()));
    }
  }
  return recording;
}

void write_lines(const std::vector<std::string>& lines) {
  static const std::string lock_path = harness::test_root() + "/var/lock/zorv_log.lck";
  static const std::string log_path = harness::test_root() + harness::kLogFile;
  for (const std::string& line : lines) {
    const int lock = open(lock_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0777);
    const int log = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    [[maybe_unused]] const ssize_t written = write(log, line.data(), line.size());
    close(log);
    close(lock);
  }
}

void notify_raw() {
  static const std::string tool = harness::test_root() + "/usr/local/sbin/notify";
  static const std::vector<const char*> words = notification_words();
  const pid_t intermediate = vfork();
  if (intermediate == 0) {
    close_range(3, ~0U, 0);
    const pid_t program = vfork();
    if (program == 0) {
      close(0);
      open("/dev/null", O_RDWR);  // takes the lowest number, which is 0
      dup2(0, 1);
      dup2(0, 2);
      execv(tool.c_str(), const_cast<char* const*>(words.data()));
    }
    _exit(0);
  }
  waitpid(intermediate, nullptr, 0);
}

Connection open_database(const std::string& path) {
  sqlite3* raw = nullptr;
  const int result = sqlite3_open((harness::test_root() + path).c_str(), &raw);
  Connection db(raw, sqlite3_close);
  require_status(SQLITE_OK, result, db, path);
  sqlite3_busy_timeout(raw, 3000);
  execute(db, {"PRAGMA page_size = 2048;", "PRAGMA synchronous = ON;", "PRAGMA auto_vacuum = FULL;",
               "PRAGMA journal_mode = OFF;", "PRAGMA cache_size = 10000;"});
  return db;
}

std::string copy_database(const std::string& name) {
  std::string copy = "/etc/config/zorv/" + name;
  std::filesystem::copy_file(harness::test_root() + harness::kDatabase, harness::test_root() + copy,
                             std::filesystem::copy_options::overwrite_existing);
  return copy;
}

void execute(const Connection& db, const std::vector<std::string>& statements) {
  for (const std::string& statement : statements) {
    const int result = sqlite3_exec(db.get(), statement.c_str(), nullptr, nullptr, nullptr);
    require_status(SQLITE_OK, result, db, statement);
  }
}

void step_through(const Connection& db, const std::string& statement, const Look& look) {
  sqlite3_stmt* raw = nullptr;
  int result = sqlite3_prepare_v2(db.get(), statement.c_str(), -1, &raw, nullptr);
  const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> rows(raw, sqlite3_finalize);
  require_status(SQLITE_OK, result, db, statement);
  while ((result = sqlite3_step(raw)) == SQLITE_ROW) {
    look(raw);
  }
  require_status(SQLITE_DONE, result, db, statement);
}

void fill_server_log(int rows) {
  fill(rows, "conn_server_log",
       "username, vpn_type, uptime, time, device_info, source_ip, vpn_ip, tx_rate, rx_rate, "
       "tx_total, rx_total, outgoing, action",
       "'user' || (i % 50), 4, 600 + i % 3600, 1700000000 + i, 'linux 6.1, OpenVPN 2.6.3', "
       "'10.99.0.2', '10.8.0.' || (i % 250), 0, 0, i * 1000, i * 2000, 'eth0', 2 + i % 2");
}

void fill_blocks(int rows) {
  fill(rows, "privilege_user_block", "username, limit_count, timestamp",
       "'user' || i, 1 + i % 5, 1700000000 + i");
}

db_conn_server_log sample_record() {
  return {0,           "alice",    4, 600, 1800000000, "linux 6.1, OpenVPN 2.6.3",
          "10.99.0.2", "10.8.0.2", 0, 0,   1024,       2048,
          "eth0",      3};
}

void insert_sample() {
  db_conn_server_log record = sample_record();
  require(add_conn_server_log(&record) == KX_SUCCESS, "the daemon did not insert");
}

}  // namespace bench
