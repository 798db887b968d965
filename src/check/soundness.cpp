#include "soundness.h"

#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "descriptor.h"
#include "memory_room.h"
#include "zorvd_db_helper.h"

namespace check {
namespace {

volatile sig_atomic_t cancelled = 0;

constexpr int kPatienceMs = 2000;  // for another process's lock
constexpr int kStepsBetweenLooks = 10'000;

int open_untrusted(const std::string& file, int flags, store::Database& ret_db) {
  sqlite3* db = nullptr;
  const int result = sqlite3_open_v2(file.c_str(), &db, flags, nullptr);
  ret_db.reset(db);
  if (result == SQLITE_OK) {
    sqlite3_busy_timeout(db, kPatienceMs);
    sqlite3_progress_handler(
        db, kStepsBetweenLooks, [](void*) { return int{is_cancelled()}; }, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  }
  return result;
}

// The one line of it that tells.
std::string one_line(const char* text) {
  std::string line = text != nullptr ? text : "";
  if (line.starts_with("***") && line.find('\n') != std::string::npos) {
    line.erase(0, line.find('\n') + 1);
  }
  return line.substr(0, line.find('\n'));
}

Verdict verdict_of(int result) {
  switch (result & 0xFF) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_IOERR:
    case SQLITE_ERROR:  // of a schema that cannot be read
      return Verdict::damaged;
    default:
      return Verdict::unknown;
  }
}

// One row, "ok" or the first thing that is wrong.
Finding ask(sqlite3* db, const char* pragma) {
  std::string answer;
  const int result = sqlite3_exec(
      db, pragma,
      [](void* user, int, char** texts, char**) {
        *static_cast<std::string*>(user) = one_line(texts[0]);
        return 0;
      },
      &answer, nullptr);
  if (sqlite3_extended_errcode(db) == SQLITE_READONLY_ROLLBACK) {
    return {Verdict::damaged, "a transaction was cut off"};
  }
  if (result != SQLITE_OK) {
    return {verdict_of(result), sqlite3_errmsg(db)};
  }
  return {answer == "ok" ? Verdict::sound : Verdict::damaged, answer};
}

Finding look_here(const std::string& file, bool may_write) {
  store::Database db;
  const int flags = may_write ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY;
  if (open_untrusted(file, flags, db) != SQLITE_OK) {
    return {Verdict::unknown, db != nullptr ? sqlite3_errmsg(db.get()) : "out of memory"};
  }
  // Reading it page by page takes four times as long where rows are large.
  ask(db.get(), "PRAGMA mmap_size = 2147418112");
  Finding finding = ask(db.get(), "PRAGMA integrity_check(1)");
  if (finding.verdict == Verdict::damaged &&
      ask(db.get(), "PRAGMA quick_check(1)").verdict == Verdict::sound) {
    finding.verdict = Verdict::indexes;
  }
  return finding;
}

// A disk gives a file in its order sooner than in the order of its trees. Not where it would push
// its own beginning out of the memory again.
void read_ahead(const std::string& file) {
  constexpr off_t kStep = 1 << 20;
  constexpr uint64_t kPartOfMemory = 4;
  const os::Descriptor opened(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  const uint64_t memory =
      static_cast<uint64_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  struct stat status {};
  if (opened.valid() && fstat(opened.get(), &status) == 0 &&
      static_cast<uint64_t>(status.st_size) <
          std::min(memory, os::memory_room().limit) / kPartOfMemory) {
    for (off_t at = 0; at < status.st_size && !is_cancelled(); at += kStep) {
      posix_fadvise(opened.get(), at, kStep, POSIX_FADV_WILLNEED);
    }
  }
}

}  // namespace

bool is_cancelled() {
  return cancelled != 0;
}

void end_on_signals() {
  struct sigaction action {};
  action.sa_handler = [](int) { cancelled = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

Finding look(const std::string& file, bool may_write) {
  int ends[2];
  if (pipe(ends) != 0) {
    return {Verdict::unknown, std::strerror(errno)};
  }
  const os::Descriptor reading(ends[0]);
  os::Descriptor writing(ends[1]);
  const pid_t child = fork();
  if (child < 0) {
    return {Verdict::unknown, std::strerror(errno)};
  }
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const Finding finding = look_here(file, may_write);
    const std::string told = static_cast<char>(finding.verdict) + finding.text;
    _exit(write(writing.get(), told.data(), told.size()) == std::ssize(told) ? 0 : 1);
  }
  writing.reset();
  read_ahead(file);
  char told[1024];
  ssize_t length = 0;
  do {
    length = read(reading.get(), told, sizeof told);
  } while (length < 0 && errno == EINTR && !is_cancelled());
  if (length < 0) {
    kill(child, SIGKILL);
  }
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  if (is_cancelled()) {
    return {Verdict::unknown, "cancelled"};
  }
  if (length <= 0) {
    return {Verdict::damaged, "it cannot be read to its end"};
  }
  return {static_cast<Verdict>(told[0]), {told + 1, static_cast<size_t>(length) - 1}};
}

int rebuild_indexes(const std::string& file) {
  store::Database db;
  const int result = open_untrusted(file, SQLITE_OPEN_READWRITE, db);
  return result != SQLITE_OK ? result
                             : sqlite3_exec(db.get(), "REINDEX", nullptr, nullptr, nullptr);
}

}  // namespace check
