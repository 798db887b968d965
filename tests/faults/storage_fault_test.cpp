// The daemon with a disk, a file or a neighbour that fails it: what callers get, what the log says,
// and what is left afterwards. docs/operations.md tells an administrator the same.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/faults.h"
#include "harness/records.h"
#include "harness/test_root.h"
#include "kxbus.h"
#include "zorv_api_db.h"
#include "zorv_api_mobile.h"

namespace {

namespace fs = std::filesystem;
using harness::log_holds;
using harness::sql;

constexpr record_uint64 kUnread = ~record_uint64{0};

std::string database() {
  return harness::test_root() + harness::kDatabase;
}

// A record that is stored and not announced.
int insert(const std::string& user, size_t text_size = 1) {
  db_conn_server_log record{};
  user.copy(record.username, sizeof record.username - 1);
  for (auto* field : {&record.device_info, &record.source_ip, &record.vpn_ip, &record.outgoing}) {
    memset(*field, 'x', text_size);
  }
  return add_conn_server_log(&record);
}

harness::Listed<db_conn_server_log_query> list() {
  return harness::list(list_conn_server_log);
}

std::vector<std::string> users() {
  std::vector<std::string> users;
  for (const db_conn_server_log& row : list().rows) {
    users.emplace_back(row.username);
  }
  return users;
}

// Every kind of request, in a state in which any of them may fail. Each is answered, and at once.
void expect_service() {
  EXPECT_EQ(insert("anybody"), KX_SUCCESS);
  db_conn_client_log_data client{};
  EXPECT_EQ(add_conn_client_log(&client), KX_SUCCESS);
  db_server_list_data session{};
  EXPECT_EQ(add_server_list(&session), KX_SUCCESS);
  db_device_info_data device{};
  zorv_mobile_gen_uuid_data_get uuid{};
  EXPECT_EQ(add_device_info(&device, &uuid), KX_SUCCESS);
  std::string user = "anybody";
  EXPECT_EQ(add_privilege_user_block(user.data()), KX_SUCCESS);
  EXPECT_EQ(check_privilege_user_block(user.data()), 0);
  EXPECT_EQ(delete_privilege_user_block(user.data()), KX_SUCCESS);
  EXPECT_TRUE(list().answered);
  db_delete_cond none{0};
  EXPECT_EQ(delete_conn_client_log(&none), KX_SUCCESS);
  EXPECT_EQ(clean_conn_client_log(), KX_SUCCESS);
}

void make_database(size_t rows) {
  harness::Daemon daemon;
  for (size_t i = 0; i < rows; ++i) {
    ASSERT_EQ(insert("user" + std::to_string(i), 200), KX_SUCCESS);
  }
  ASSERT_EQ(daemon.stop(), 0);
}

// What an administrator does with a damaged file: puts it aside and starts the daemon again.
void expect_a_fresh_start() {
  std::error_code not_there;
  fs::rename(database(), database() + ".damaged", not_there);
  harness::Daemon daemon;
  EXPECT_EQ(insert("new"), KX_SUCCESS);
  EXPECT_EQ(users(), std::vector<std::string>{"new"});
  EXPECT_EQ(sql("PRAGMA integrity_check;"), std::vector<std::string>{"ok"});
  EXPECT_EQ(daemon.stop(), 0);
}

// What an administrator saves of a damaged file: a new file with the rows that can be read.
std::string save_by_dump(const std::string& damaged) {
  std::string saved = damaged + ".saved";
  EXPECT_EQ(harness::run({"/bin/sh", "-c",
                          "sqlite3 " + damaged +
                              " .dump | sed 's/^ROLLBACK;.*/COMMIT;/' | sqlite3 " + saved})
                .status,
            0);
  return saved;
}

class StorageFault : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(fs::path(database()).parent_path());
    fs::remove(database());
    fs::remove(harness::test_root() + harness::kLogFile);
  }
};

TEST_F(StorageFault, AMissingFolderIsServedWithoutAStore) {
  fs::remove_all(fs::path(database()).parent_path());
  {
    harness::Daemon daemon;
    EXPECT_TRUE(log_holds("open db failed, unable to open database file"));
    expect_service();
    EXPECT_TRUE(log_holds("RET = 14"));
    EXPECT_EQ(list().total, kUnread) << "told apart from an empty table";
    // The folder alone does not help: tables are made at start.
    fs::create_directories(fs::path(database()).parent_path());
    EXPECT_EQ(insert("late"), KX_SUCCESS);
    EXPECT_TRUE(log_holds("no such table: conn_server_log"));
    EXPECT_EQ(list().total, kUnread);
    EXPECT_EQ(daemon.stop(), 0);
  }
  harness::Daemon daemon;
  EXPECT_EQ(insert("again"), KX_SUCCESS);
  EXPECT_EQ(users(), std::vector<std::string>{"again"});
  EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(StorageFault, AReadOnlyFileIsReadAndTakesNothingUntilItIsWritableAgain) {
  const auto read_only = harness::in_mount_namespace(
      "mount --bind \"$DB\" \"$DB\" && mount -o remount,bind,ro \"$DB\"");
  if (read_only.empty()) {
    GTEST_SKIP() << "no mount namespace to be had";
  }
  make_database(1);
  harness::WrappedDaemon daemon(read_only);
  expect_service();
  EXPECT_TRUE(log_holds("attempt to write a readonly database"));
  EXPECT_EQ(users(), std::vector<std::string>{"user0"});
  ASSERT_EQ(harness::run_in_namespace_of(daemon.pid(), "mount -o remount,bind,rw \"$DB\""), 0);
  // The connection that was opened for reading only ends with the first record that it cannot take.
  EXPECT_EQ(insert("lost"), KX_SUCCESS);
  EXPECT_EQ(insert("after"), KX_SUCCESS);
  EXPECT_EQ(users(), (std::vector<std::string>{"user0", "after"}));
  EXPECT_EQ(daemon.stop(), 0);
}

// Without a journal a statement that ends half-way leaves half of it in the file.
TEST_F(StorageFault, AFullDiskDamagesTheFileAndADumpSavesItsRows) {
  const auto small_disk = harness::in_mount_namespace("mount -t tmpfs -o size=256k none \"$DB\"");
  if (small_disk.empty()) {
    GTEST_SKIP() << "no mount namespace to be had";
  }
  harness::WrappedDaemon daemon(small_disk);
  int stored = -1;
  while (!log_holds("database or disk is full")) {
    ASSERT_LT(++stored, 1000);
    ASSERT_EQ(insert("user" + std::to_string(stored), 1024), KX_SUCCESS);
  }
  expect_service();
  ASSERT_EQ(harness::run_in_namespace_of(daemon.pid(),
                                         "mount -o remount,size=4m \"$DB\" && "
                                         "cp \"$DB/zorv.db\" \"$ZORV_ROOT/damaged.db\""),
            0);
  expect_service();
  EXPECT_EQ(daemon.stop(), 0);

  fs::rename(save_by_dump(harness::test_root() + "/damaged.db"), database());
  harness::Daemon again;
  EXPECT_GE(users().size() + 1, static_cast<size_t>(stored));
  EXPECT_EQ(insert("after"), KX_SUCCESS);
  EXPECT_EQ(users().back(), "after");
  EXPECT_EQ(sql("PRAGMA integrity_check;"), std::vector<std::string>{"ok"});
  EXPECT_EQ(again.stop(), 0);
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

class DamagedFile : public StorageFault, public testing::WithParamInterface<Damage> {
 protected:
  static constexpr size_t kRows = 60;
  void SetUp() override {
    StorageFault::SetUp();
    make_database(kRows);
  }
};

TEST_P(DamagedFile, WhileTheDaemonRuns) {
  harness::Daemon daemon;
  EXPECT_EQ(users().size(), kRows);
  GetParam().apply();
  expect_service();
  expect_service();
  EXPECT_TRUE(log_holds(GetParam().running));
  if (GetParam().readable_running) {
    EXPECT_EQ(users().size(), kRows + 2);
  } else {
    EXPECT_EQ(list().total, kUnread);
  }
  EXPECT_EQ(daemon.stop(), 0);
  expect_a_fresh_start();
}

TEST_P(DamagedFile, BeforeTheDaemonStarts) {
  GetParam().apply();
  fs::remove(harness::test_root() + harness::kLogFile);
  {
    harness::Daemon daemon;
    expect_service();
    if (GetParam().started != nullptr) {
      EXPECT_TRUE(log_holds(GetParam().started));
      EXPECT_EQ(list().total, kUnread);
    } else {
      EXPECT_EQ(users().size(), 1U);
    }
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
    EXPECT_EQ(sqlite3_exec(db_, begin, nullptr, nullptr, nullptr), SQLITE_OK);
  }
  ~Neighbour() { sqlite3_close(db_); }
  Neighbour(const Neighbour&) = delete;
  Neighbour& operator=(const Neighbour&) = delete;
  void end() { EXPECT_EQ(sqlite3_exec(db_, "END;", nullptr, nullptr, nullptr), SQLITE_OK); }

 private:
  sqlite3* db_ = nullptr;
};

TEST_F(StorageFault, ALockHeldForASecondDelaysAndLosesNothing) {
  harness::Daemon daemon;
  for (const char* begin : {"BEGIN IMMEDIATE;", "BEGIN EXCLUSIVE;"}) {
    Neighbour neighbour(begin);
    std::thread caller([begin] { EXPECT_EQ(insert(begin), KX_SUCCESS); });
    std::this_thread::sleep_for(std::chrono::seconds(1));
    neighbour.end();
    caller.join();
  }
  EXPECT_EQ(users(), (std::vector<std::string>{"BEGIN IMMEDIATE;", "BEGIN EXCLUSIVE;"}));
  EXPECT_FALSE(log_holds("database is locked"));
  EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(StorageFault, ALockHeldLongerLosesTheRecordAndNothingElse) {
  harness::Daemon daemon;
  {
    // Readers may pass, so only the insert itself waits, and gives up after its three seconds.
    const Neighbour neighbour("BEGIN IMMEDIATE;");
    EXPECT_EQ(insert("lost"), KX_SUCCESS);
    EXPECT_TRUE(log_holds("database is locked"));
  }
  EXPECT_EQ(insert("kept"), KX_SUCCESS);
  EXPECT_EQ(users(), std::vector<std::string>{"kept"});
  EXPECT_EQ(daemon.stop(), 0);
}

// Inserts until the daemon is killed, `delay` after the first answer.
int insert_until_killed(harness::Daemon& daemon, int round, std::chrono::microseconds delay) {
  std::atomic<int> acknowledged{0};
  std::thread writer([&] {
    while (insert("r" + std::to_string(round) + "-" + std::to_string(acknowledged)) == KX_SUCCESS) {
      ++acknowledged;
    }
  });
  EXPECT_TRUE(harness::eventually([&] { return acknowledged > 0; }));
  std::this_thread::sleep_for(delay);
  daemon.process().send(SIGKILL);
  daemon.process().wait();
  writer.join();
  return acknowledged;
}

// Counted row by row: a plain count asks an index, which may be what is damaged.
int rows_in(const std::string& path) {
  return atoi(harness::run(
                  {"/bin/sh", "-c",
                   "sqlite3 " + path + " 'SELECT Count(*) FROM conn_server_log WHERE id + 0 > 0;'"})
                  .out.c_str());
}

TEST_F(StorageFault, KilledDuringInserts) {
  constexpr int kMostRows = 50'000;  // of a file: fewer than would be recycled
  // ZORV_TEST_KILLS=100 for the long form.
  const char* wanted = getenv("ZORV_TEST_KILLS");
  const int kills = wanted != nullptr ? atoi(wanted) : 20;
  std::minstd_rand random(static_cast<unsigned>(kills));
  int told = 0;     // rows that were acknowledged
  int lost = 0;     // of them, those that are not in a sound file
  int untold = 0;   // rows that are there though nobody was told
  int damaged = 0;  // files that integrity_check finds fault with
  int unsaved = 0;  // acknowledged rows that a dump does not save from a damaged file
  int before = 0;   // rows in the file
  for (int round = 0; round < kills; ++round) {
    harness::Daemon daemon;  // on whatever the kill before left behind
    const int acknowledged =
        insert_until_killed(daemon, round, std::chrono::microseconds(random() % 50'000));
    told += acknowledged;
    const int due = before + acknowledged;
    if (sql("PRAGMA integrity_check;") == std::vector<std::string>{"ok"}) {
      before = rows_in(database());
      lost += std::max(due - before, 0);
      untold += std::max(before - due, 0);
    } else {
      const std::string saved = save_by_dump(database());
      ++damaged;
      unsaved += std::max(due - rows_in(saved), 0);
      fs::remove(saved);
      before = kMostRows;
    }
    if (before >= kMostRows) {
      fs::remove(database());
      before = 0;
    }
  }
  printf(
      "%d kills, %d rows acknowledged, %d of them lost from sound files; %d rows stored and not "
      "acknowledged; %d files damaged, %d acknowledged rows not saved from them\n",
      kills, told, lost, untold, damaged, unsaved);
  EXPECT_EQ(lost, 0);
}

}  // namespace
