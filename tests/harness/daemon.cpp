#include "harness/daemon.h"

#include <sqlite3.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "kxbus.h"

namespace harness {
namespace {

std::vector<std::string> command(const char* name, const std::vector<std::string>& words) {
  std::vector<std::string> whole{program(name)};
  whole.insert(whole.end(), words.begin(), words.end());
  return whole;
}

}  // namespace

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
  const std::string text = read_file(kLogFile);
  std::vector<LogLine> lines;
  for (size_t at = 0, length = 0; at < text.size(); at += length) {
    char level[8], module[64], function[64];
    int prefix = 0;
    const bool begins = std::isdigit(static_cast<unsigned char>(text[at])) != 0 &&
                        sscanf(text.c_str() + at,
                               "%*4[0-9]-%*2[0-9]-%*2[0-9] %*2[0-9]:%*2[0-9]:%*2[0-9] %*d "
                               "[%7[A-Z]] %63[a-z_] [%*d] %63[^:]:%n",
                               level, module, function, &prefix) == 3 &&
                        prefix > 0;
    if (begins) {
      lines.push_back({level, module, function, ""});
    } else if (!lines.empty()) {
      lines.back().text += text[at];
    }
    length = begins ? static_cast<size_t>(prefix) : 1;
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

std::vector<std::string> new_log_texts(const std::string& module, const std::string& level) {
  std::vector<std::string> texts = log_texts(module);
  std::erase_if(texts, [&](const std::string& text) { return !text.starts_with(level); });
  write_file(kLogFile, "");
  return texts;
}

bool log_holds(const std::string& text) {
  return read_file(kLogFile).find(text) != std::string::npos;
}

std::vector<std::string> notifications(size_t count) {
  std::vector<std::string> lines;
  eventually([&] {
    lines = lines_of(read_file(kNotifications));
    return lines.size() >= count;
  });
  return lines;
}

std::vector<std::string> sql(const std::string& statement) {
  std::vector<std::string> rows;
  sqlite3* db = nullptr;
  sqlite3_open((test_root() + kDatabase).c_str(), &db);
  sqlite3_busy_timeout(db, 6000);
  sqlite3_exec(db, "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
  const auto add_row = [](void* user, int count, char** texts, char**) {
    std::string row;
    for (int i = 0; i < count; ++i) {
      row += std::string(i == 0 ? "" : "|") + (texts[i] != nullptr ? texts[i] : "NULL");
    }
    static_cast<std::vector<std::string>*>(user)->push_back(row);
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
