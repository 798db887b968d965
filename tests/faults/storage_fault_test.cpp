// The daemon with a file or a neighbour that fails it: what callers get, what the log says, and
// what is left afterwards. docs/operations.md tells an administrator the same.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>

#include "harness/daemon.h"
#include "harness/records.h"
#include "zorv_calls.h"

namespace {

namespace fs = std::filesystem;
using harness::log_holds;
using harness::sql;
using std::chrono::steady_clock;
using Texts = std::vector<std::string>;

const std::string& database() {
  static const std::string path = harness::test_root() + harness::kDatabase;
  return path;
}

// A record that is stored and not announced.
int insert(const std::string& user) {
  db_conn_server_log record{};
  zorv::copy_text(record.username, user);
  return zorv_api::insert(zorv::kServerLog, &record);
}

Texts users() {
  Texts users;
  for (const db_conn_server_log& row : harness::list(list_conn_server_log).rows) {
    users.emplace_back(row.username);
  }
  return users;
}

bool is_unread() {
  return harness::list(list_conn_server_log).total == zorv_api::kTableUnread;
}

// Every kind of request, in a state in which any of them may fail. Each is answered.
void expect_service() {
  EXPECT_EQ(insert("anybody"), KX_SUCCESS);
  for (const zorv::TableSchema* table : zorv::kTables) {
    const std::string record(table->record_size, '\0');
    EXPECT_EQ(zorv_api::insert(*table, record.data()), KX_SUCCESS);
    zorv_api::Rows rows;
    EXPECT_EQ(zorv_api::query(*table, harness::page(), rows), KX_SUCCESS) << table->name;
  }
  char user[] = "anybody";
  EXPECT_EQ(check_privilege_user_block(user), 0);
  EXPECT_EQ(delete_privilege_user_block(user), KX_SUCCESS);
  EXPECT_EQ(zorv_api::remove(zorv::kClientLog, 0), KX_SUCCESS);
  EXPECT_EQ(zorv_api::clean(zorv::kClientLog), KX_SUCCESS);
}

// What an administrator does with a damaged file: puts it aside and starts the daemon again.
void expect_a_fresh_start() {
  std::error_code not_there;
  fs::rename(database(), database() + ".damaged", not_there);
  harness::Daemon daemon;
  EXPECT_EQ(insert("new"), KX_SUCCESS);
  EXPECT_EQ(users(), Texts{"new"});
  EXPECT_EQ(sql("PRAGMA integrity_check;"), Texts{"ok"});
  EXPECT_EQ(daemon.stop(), 0);
}

TEST(Storage, AMissingFolderIsServedWithoutAStore) {
  fs::remove_all(fs::path(database()).parent_path());
  harness::Daemon daemon;
  EXPECT_TRUE(log_holds("open db failed, unable to open database file"));
  expect_service();
  EXPECT_TRUE(log_holds("RET = 14"));
  EXPECT_TRUE(is_unread()) << "told apart from an empty table";
  // The folder alone does not help: tables are made at start.
  fs::create_directories(fs::path(database()).parent_path());
  EXPECT_EQ(insert("late"), KX_SUCCESS);
  EXPECT_TRUE(log_holds("no such table: conn_server_log"));
  EXPECT_TRUE(is_unread());
  EXPECT_EQ(daemon.stop(), 0);
  expect_a_fresh_start();
}

void overwrite(std::streamoff from, std::streamoff to) {
  std::minstd_rand random(1);
  std::fstream file(database(), std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(from);
  for (std::streamoff at = from; at < to; ++at) {
    file.put(static_cast<char>(random()));
  }
}

std::streamoff size() {
  return static_cast<std::streamoff>(fs::file_size(database()));
}

struct Damage {
  const char* name;
  void (*apply)();
  // What the log says, and whether the server log can be read then.
  const char* running;
  bool readable_running;
  const char* started;  // null when the daemon starts as with a new file
};

void PrintTo(const Damage& damage, std::ostream* out) {
  *out << damage.name;
}

constexpr const char* kMalformed = "err = database disk image is malformed";
constexpr const char* kNoDatabase = "err = file is not a database";

constexpr Damage kDamages[] = {
    {"Emptied", [] { fs::resize_file(database(), 0); }, "err = no such table: conn_server_log",
     false, nullptr},
    // The connection works on with the file that has no name any more, until a statement fails.
    {"Removed", [] { fs::remove(database()); }, "err = no such table: conn_client_log", true,
     nullptr},
    {"CutInTheHeader", [] { fs::resize_file(database(), 50); }, kMalformed, false, kMalformed},
    {"CutInHalf", [] { fs::resize_file(database(), fs::file_size(database()) / 2); }, kMalformed,
     false, kMalformed},
    {"NoiseAllOver", [] { overwrite(0, size()); }, kNoDatabase, false,
     "create db failed: CREATE  TABLE IF NOT EXISTS conn_server_log"},
    {"NoiseBehindTheFirstPage", [] { overwrite(2048, size()); }, kMalformed, false, kMalformed},
    // A connection remembers the schema that it has read.
    {"NoiseInTheSchema", [] { overwrite(100, 2048); }, "", true, kMalformed},
};

class DamagedFile : public testing::TestWithParam<Damage> {};

TEST_P(DamagedFile, BeneathTheDaemonAndBeforeItsStart) {
  constexpr size_t kRows = 60;
  harness::Daemon().stop();
  harness::insert_rows("conn_server_log", kRows, "username, device_info",
                       "'user' || i, printf('%0300d', i)");
  const std::string sound = harness::read_file(harness::kDatabase);
  {
    harness::Daemon daemon;
    EXPECT_EQ(users().size(), kRows);
    GetParam().apply();
    expect_service();
    expect_service();
    EXPECT_TRUE(log_holds(GetParam().running));
    EXPECT_EQ(is_unread(), !GetParam().readable_running);
    EXPECT_EQ(users().size(), GetParam().readable_running ? kRows + 4 : 0);
    EXPECT_EQ(daemon.stop(), 0);
  }
  harness::write_file(harness::kDatabase, sound);
  GetParam().apply();
  harness::write_file(harness::kLogFile, "");
  {
    harness::Daemon daemon;
    expect_service();
    const bool is_new = GetParam().started == nullptr;
    EXPECT_TRUE(is_new || log_holds(GetParam().started));
    EXPECT_EQ(is_unread(), !is_new);
    EXPECT_EQ(users().size(), is_new ? 2U : 0U);
    EXPECT_EQ(daemon.stop(), 0);
  }
  expect_a_fresh_start();
}

INSTANTIATE_TEST_SUITE_P(Storage, DamagedFile, testing::ValuesIn(kDamages),
                         [](const auto& damage) { return std::string(damage.param.name); });

// Another process's transaction on the database file.
class Neighbour {
 public:
  explicit Neighbour(const char* begin) {
    sqlite3_open(database().c_str(), &db_);
    EXPECT_EQ(sqlite3_exec(db_, begin, nullptr, nullptr, nullptr), SQLITE_OK) << begin;
  }
  ~Neighbour() { sqlite3_close(db_); }
  Neighbour(const Neighbour&) = delete;
  Neighbour& operator=(const Neighbour&) = delete;

 private:
  sqlite3* db_ = nullptr;
};

constexpr const char* kReader = "BEGIN; SELECT * FROM conn_server_log;";
constexpr const char* kWriter = "BEGIN EXCLUSIVE;";

TEST(Lock, AStartDoesNotWaitForIt) {
  harness::Daemon().stop();
  for (const char* begin : {kReader, kWriter}) {
    std::optional<Neighbour> neighbour(begin);
    const auto start = steady_clock::now();
    harness::Daemon daemon;
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(4)) << begin;
    EXPECT_EQ(log_holds("create db failed"), begin == kWriter) << "a reader lets it start";
    neighbour.reset();
    EXPECT_EQ(insert("kept"), KX_SUCCESS);
    EXPECT_EQ(daemon.stop(), 0);
  }
}

TEST(Lock, HeldForASecondDelaysAndLosesNothing) {
  harness::Daemon daemon;
  for (const char* begin : {"BEGIN IMMEDIATE;", kWriter, kReader}) {
    std::optional<Neighbour> neighbour(begin);
    std::thread caller([begin] { EXPECT_EQ(insert(begin), KX_SUCCESS); });
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    neighbour.reset();
    caller.join();
    // A failed statement: the next ones are another connection's.
    harness::list(list_conn_server_log, harness::filtered("none", "x"));
  }
  EXPECT_EQ(users(), (Texts{"BEGIN IMMEDIATE;", kWriter, kReader}));
  EXPECT_FALSE(log_holds("database is locked"));
  EXPECT_EQ(daemon.stop(), 0);
}

// One patience for all statements of a request: it is answered, and nothing is stored by halves.
TEST(Lock, HeldLongerLosesTheRequestAndNothingElse) {
  harness::Daemon daemon;
  EXPECT_EQ(zorv_api::count_failure("mallory"), KX_SUCCESS);
  for (const bool counts : {false, true}) {
    harness::write_file(harness::kLogFile, "");
    std::optional<Neighbour> neighbour(kWriter);
    std::atomic<bool> answered{false};
    std::thread caller([&] {
      EXPECT_EQ(counts ? zorv_api::count_failure("mallory") : insert("lost"), KX_SUCCESS);
      answered = true;
    });
    EXPECT_TRUE(harness::eventually([] { return log_holds("database is locked"); }));
    // By now its patience has ended for the statements that follow, too.
    for (int i = 0; i < 1000 && !answered; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(answered);
    neighbour.reset();
    caller.join();
  }
  EXPECT_EQ(insert("kept"), KX_SUCCESS);
  EXPECT_EQ(users(), Texts{"kept"});
  EXPECT_EQ(zorv_api::count_failure("mallory"), KX_SUCCESS);
  EXPECT_EQ(sql("SELECT username, limit_count FROM privilege_user_block"), Texts{"mallory|2"});
  EXPECT_EQ(daemon.stop(), 0);
}

// Without a journal a kill may damage the file; a sound one holds what was acknowledged.
TEST(Storage, KilledDuringInserts) {
  // ZORV_TEST_KILLS=100 for the long form.
  const char* wanted = getenv("ZORV_TEST_KILLS");
  const int kills = wanted != nullptr ? atoi(wanted) : 20;
  std::minstd_rand random(1);
  int due = 0;  // rows that were acknowledged, of this file
  for (int round = 0; round < kills; ++round) {
    harness::Daemon daemon;  // on whatever the kill before left behind
    std::atomic<int> acknowledged{0};
    std::thread writer([&] {
      while (insert("user") == KX_SUCCESS) {
        ++acknowledged;
      }
    });
    const int last = 1 + static_cast<int>(random() % 40);
    EXPECT_TRUE(harness::eventually([&] { return acknowledged >= last; }));
    daemon.process().send(SIGKILL);
    EXPECT_EQ(daemon.process().wait(), 128 + SIGKILL);
    writer.join();
    due += acknowledged;
    if (sql("PRAGMA integrity_check;") != Texts{"ok"}) {
      expect_a_fresh_start();
      due = 1;
      continue;
    }
    const int stored = std::stoi(sql("SELECT Count(*) FROM conn_server_log WHERE id + 0 > 0;")[0]);
    EXPECT_GE(stored, due);
    due = stored;
  }
}

}  // namespace
