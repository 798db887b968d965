#include "harness/daemon.h"

#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <stdexcept>

#include "kxbus.h"

namespace harness {

static std::vector<std::string> command(const char* name, std::vector<std::string> words) {
  words.insert(words.begin(), program(name));
  return words;
}

std::string program(const std::string& name) {
  const char* const other_build = getenv("ZORV_TEST_PROGRAMS");
  return std::string(other_build != nullptr ? other_build : ZORV_BIN_FOLDER) + "/" + name;
}

void install_notify() {
  std::error_code ignored;
  std::filesystem::create_symlink(program("notify"), test_root() + "/usr/local/sbin/notify",
                                  ignored);
}

bool wait_until_serving(const char* address) {
  return eventually([address] {
    const kx_io_owner io(kx_io_create());
    const int status = kx_call(address, "no such method", io.get(), 5, -1);
    return status == KX_IS_INVALID || status == KX_SUCCESS;
  });
}

Daemon::Daemon(const std::vector<std::string>& options) : Process(command("zorvd", options)) {
  wait_until_serving("@/var/run/zorvd.sock");
}

PlatformDaemon::PlatformDaemon() : Process(command("platformd", {})) {
  wait_until_serving("vpncaas");
  wait_until_serving("NetworkService");
}

Outcome zorvctl(const std::vector<std::string>& words, const std::string& input) {
  return run(command("zorvctl", words), input);
}

std::vector<LogLine> log_lines() {
  static const std::regex kPrefix(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \d+ \[([A-Z]+)\] ([a-z_]+) \[\d+\] ([^:]+):)");
  const std::string text = read_file(kLogFile);
  std::vector<LogLine> lines;
  for (std::sregex_iterator next(text.begin(), text.end(), kPrefix), end; next != end;) {
    const std::smatch prefix = *next++;
    const auto text_end = next != end ? (*next)[0].first : text.end();
    lines.push_back({prefix[1], prefix[2], prefix[3], {prefix[0].second, text_end}});
  }
  return lines;
}

std::vector<std::string> log_texts(const std::string& module) {
  std::vector<std::string> texts;
  for (const LogLine& line : log_lines()) {
    if (line.module == module) {
      texts.push_back(line.level + " " + line.text);
    }
  }
  return texts;
}

std::vector<std::string> new_log_texts(const std::string& module) {
  const auto texts = log_texts(module);
  write_file(kLogFile, "");
  return texts;
}

std::vector<std::string> notifications(size_t count) {
  eventually([count] { return lines_of(read_file(kNotifications)).size() >= count; });
  return lines_of(read_file(kNotifications));
}

std::vector<std::string> sql(const std::string& statement) {
  std::vector<std::string> rows;
  sqlite3* db = nullptr;
  sqlite3_open((test_root() + kDatabase).c_str(), &db);
  sqlite3_busy_timeout(db, 6000);
  sqlite3_exec(db, "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
  const auto add_row = [](void* user, int count, char** texts, char**) {
    std::string& row = static_cast<std::vector<std::string>*>(user)->emplace_back();
    for (int i = 0; i < count; ++i) {
      row += std::string(i == 0 ? "" : "|") + (texts[i] != nullptr ? texts[i] : "NULL");
    }
    return 0;
  };
  if (sqlite3_exec(db, statement.c_str(), add_row, &rows, nullptr) != SQLITE_OK) {
    rows.push_back(std::string("error: ") + sqlite3_errmsg(db));
  }
  sqlite3_close(db);
  return rows;
}

void insert_rows(const std::string& table, int last, const std::string& columns,
                 const std::string& values, int first) {
  const auto complaints =
      sql("WITH RECURSIVE n(i) AS (SELECT " + std::to_string(first) +
          " UNION ALL SELECT i + 1 FROM n WHERE i < " + std::to_string(last) + ") INSERT INTO " +
          table + " (" + columns + ") SELECT " + values + " FROM n");
  if (!complaints.empty()) {
    throw std::runtime_error(complaints[0]);
  }
}

}  // namespace harness
