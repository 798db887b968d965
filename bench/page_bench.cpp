// A page of 50 rows out of 100,000, newest first, by time, and of one user.
//
// The floor is the three statements that the daemon logged for it, prepared and stepped in this
// process; no row is looked at. The peers are programs: the sqlite3 shell with the page's statement
// alone, and journalctl on as many entries.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "families.h"
#include "floor.h"
#include "harness/daemon.h"
#include "harness/test_root.h"
#include "kxbus.h"
#include "recording.h"
#include "server_log.h"
#include "zorv_api_db.h"

extern char** environ;

namespace bench {
namespace {

constexpr int kRows = 100000;
constexpr int kPage = 50;
constexpr const char* kShell = "/usr/bin/sqlite3";
constexpr const char* kJournalctl = "/usr/bin/journalctl";
constexpr const char* kJournalRemote = "/lib/systemd/systemd-journal-remote";

void list_page(const db_query_cond& cond) {
  db_query_cond request = cond;
  db_conn_server_log_query result{};
  db_conn_server_log_query* out = &result;
  list_conn_server_log(&request, &out);
  free(result.data);
  if (result.count != kPage || result.total != kRows) {
    throw std::runtime_error("not a page");
  }
}

// Runs a program to its end, its output going to a file.
void run_program(const std::vector<std::string>& words) {
  static const std::string output = harness::test_root() + "/output";
  std::vector<char*> arguments;
  for (const std::string& word : words) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = -1;
  if (error != 0 || waitpid(pid, &status, 0) != pid || status != 0) {
    throw std::runtime_error(words[0] + " failed");
  }
}

// A journal file with an entry a row; "" where it cannot be made.
std::string make_journal() {
  if (access(kJournalctl, X_OK) != 0 || access(kJournalRemote, X_OK) != 0) {
    return "";
  }
  const std::string source = harness::test_root() + "/entries";
  const std::string journal = harness::test_root() + "/bench.journal";
  constexpr const char* kId = "0123456789abcdef0123456789abcdef";
  std::ofstream entries(source);
  for (int i = 1; i <= kRows; ++i) {
    entries << "__REALTIME_TIMESTAMP=" << 1700000000LL + i << "000000\n__MONOTONIC_TIMESTAMP=" << i
            << "000000\n_BOOT_ID=" << kId << "\n_MACHINE_ID=" << kId
            << "\nSYSLOG_IDENTIFIER=openvpn\nPRIORITY=6\nUSERNAME=user" << i % 50
            << "\nDEVICE_INFO=linux 6.1, OpenVPN 2.6.3\nSOURCE_IP=10.99.0.2\nVPN_IP=10.8.0."
            << i % 250 << "\nTX_TOTAL=" << i * 1000LL << "\nRX_TOTAL=" << i * 2000LL
            << "\nMESSAGE=user" << i % 50 << " logged in\n\n";
  }
  entries.close();
  run_program({kJournalRemote, "-o", journal, source});
  return journal;
}

struct Page {
  const char* work;
  record_int64 order_by;
  const char* user;
  std::vector<std::string> journalctl;  // options; none where it has no such order
};

std::vector<Contender> contenders_for(Report& report, const Page& page, sqlite3* db,
                                      const std::string& journal) {
  const db_query_cond cond = page_of(kPage, page.order_by, page.user);
  const Recording recording = record([&cond] { list_page(cond); });
  const auto statements = recording.statements;
  if (statements.size() != 3) {
    throw std::runtime_error("not three statements");
  }
  std::vector<Contender> contenders{
      {Role::ours, "list_conn_server_log", timed([cond] { list_page(cond); })},
      {Role::floor, "the three statements stepped", timed([db, statements] {
         for (const std::string& statement : statements) {
           step_through(db, statement);
         }
       })}};
  if (access(kShell, X_OK) == 0) {
    const std::vector<std::string> shell{kShell, "-json", harness::test_root() + harness::kDatabase,
                                         statements[1]};
    contenders.push_back({Role::peer, "sqlite3 shell", timed([shell] { run_program(shell); })});
  } else {
    report.miss("no sqlite3 shell");
  }
  if (!journal.empty() && !page.journalctl.empty()) {
    std::vector<std::string> command{kJournalctl, "--file=" + journal, "-o", "json"};
    command.insert(command.end(), page.journalctl.begin(), page.journalctl.end());
    contenders.push_back({Role::peer, "journalctl", timed([command] { run_program(command); })});
  }
  return contenders;
}

}  // namespace

void measure_page(Report& report) {
  fill_server_log(kRows);
  const std::string journal = make_journal();
  if (journal.empty()) {
    report.miss("journalctl: it or systemd-journal-remote, which fills a journal, is not here");
  }
  const harness::Daemon daemon;
  const Connection db = open_database(harness::kDatabase);
  const Page pages[] = {{"page of 50, newest first", 0, nullptr, {"-n50"}},
                        {"page of 50 by time", 4, nullptr, {}},
                        {"page of 50, one user", 0, "user7", {"-n50", "USERNAME=user7"}}};
  for (const Page& page : pages) {
    report.compare(page.work, {15, 8}, {.of_floor = 1.2},
                   contenders_for(report, page, db.get(), journal));
  }
}

}  // namespace bench
