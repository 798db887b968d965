// The daemon with a file or a neighbour that fails it: what callers get, what the log says, and
// what is left afterwards. docs/operations.md tells an administrator the same.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <optional>

#include "harness/daemon.h"
#include "harness/records.h"
#include "zorv_calls.h"

namespace {

namespace fs = std::filesystem;
using harness::log_holds;
using harness::sql;
using std::chrono::steady_clock;
using Texts = std::vector<std::string>;

std::string database() {
  return harness::test_root() + harness::kDatabase;
}

// A record that is stored and not announced.
int insert(const std::string& user) {
  db_conn_server_log record{};
  zorv::copy_text(record.username, user);
  return zorv_api::insert(zorv::kServerLog, &record);
}

// In a state in which every request may fail, each is answered.
void expect_service() {
  for (const zorv::TableSchema* table : zorv::kTables) {
    const std::string record(table->record_size, '\0');
    zorv_api::Rows rows;
    EXPECT_EQ(zorv_api::insert(*table, record.data()), KX_SUCCESS);
    EXPECT_EQ(zorv_api::query(*table, harness::page(), rows), KX_SUCCESS) << table->name;
  }
  EXPECT_EQ(zorv_api::remove(zorv::kClientLog, 0), KX_SUCCESS);
  EXPECT_EQ(zorv_api::clean(zorv::kClientLog), KX_SUCCESS);
}

constexpr struct {
  const char* name;
  void (*damage)();
  const char* running;  // what the log says
  bool is_read;         // whether the server log can be read then
  const char* started;  // "" when the daemon starts as with a new file
} kDamages[] = {
    // The connection works on with the file that has no name any more, until a statement fails.
    {"removed", [] { fs::remove(database()); }, "err = no such table: conn_client_log", true, ""},
    {"no folder", [] { fs::remove_all(harness::test_root() + "/etc/config/zorv"); },
     "open db failed, unable to open database file", true,
     "open db failed, unable to open database file"},
    {"cut", [] { fs::resize_file(database(), fs::file_size(database()) / 2); },
     "err = database disk image is malformed", false, "err = database disk image is malformed"},
    {"noise", [] { harness::write_file(harness::kDatabase, std::string(50'000, '\x5A')); },
     "err = file is not a database", false,
     "create db failed: CREATE  TABLE IF NOT EXISTS conn_server_log"},
};

TEST(Storage, ADamagedFileBeneathTheDaemonAndBeforeItsStart) {
  constexpr size_t kRows = 60;
  const fs::path folder = fs::path(database()).parent_path();
  for (const auto& [name, damage, running, is_read, started] : kDamages) {
    SCOPED_TRACE(name);
    fs::create_directories(folder);
    fs::remove(database());
    harness::Daemon().stop();
    harness::insert_rows("conn_server_log", kRows, "username, device_info",
                         "'user' || i, printf('%0300d', i)");
    const std::string sound = harness::read_file(harness::kDatabase);
    std::optional<harness::Daemon> daemon(std::in_place);
    damage();
    expect_service();
    expect_service();
    EXPECT_TRUE(log_holds(running));
    auto listed = harness::list(list_conn_server_log);
    EXPECT_EQ(listed.total, is_read ? kRows + 2 : zorv_api::kTableUnread);
    EXPECT_EQ(listed.rows.size(), is_read ? kRows + 2 : 0);
    EXPECT_EQ(daemon->stop(), 0);
    fs::create_directories(folder);
    harness::write_file(harness::kDatabase, sound);
    damage();
    harness::write_file(harness::kLogFile, "");
    daemon.emplace();
    expect_service();
    EXPECT_TRUE(log_holds(started));
    listed = harness::list(list_conn_server_log);
    EXPECT_EQ(listed.total, *started == '\0' ? 1 : zorv_api::kTableUnread);
    EXPECT_EQ(daemon->stop(), 0);
  }
}

// Another process's transaction on the database file.
using Neighbour = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;
Neighbour neighbour_that(const char* begins) {
  sqlite3* db = nullptr;
  sqlite3_open(database().c_str(), &db);
  EXPECT_EQ(sqlite3_exec(db, begins, nullptr, nullptr, nullptr), SQLITE_OK) << begins;
  return {db, sqlite3_close};
}

constexpr const char* kReader = "BEGIN; SELECT * FROM conn_server_log;";
constexpr const char* kWriter = "BEGIN EXCLUSIVE;";

TEST(Lock, AStartDoesNotWaitForItAndTablesAreMadeLater) {
  harness::Daemon().stop();
  for (const char* begin : {kReader, kWriter}) {
    Neighbour neighbour = neighbour_that(begin);
    const auto start = steady_clock::now();
    harness::Daemon daemon;
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(4)) << begin;
    EXPECT_EQ(log_holds("create db failed"), begin == kWriter) << "a reader lets it start";
    neighbour.reset();
    EXPECT_EQ(insert("kept"), KX_SUCCESS);
    const db_server_list_data session{};
    EXPECT_EQ(zorv_api::insert(zorv::kServerList, &session), KX_SUCCESS);
    EXPECT_EQ(harness::list(list_server_list).total, 1U);
    EXPECT_EQ(daemon.stop(), 0);
  }
}

TEST(Lock, HeldForASecondDelaysAndLosesNothing) {
  harness::Daemon daemon;
  for (const char* begin : {"BEGIN IMMEDIATE;", kWriter, kReader}) {
    Neighbour neighbour = neighbour_that(begin);
    std::thread caller([begin] { EXPECT_EQ(insert(begin), KX_SUCCESS); });
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    neighbour.reset();
    caller.join();
    // A failed statement: the next ones are another connection's.
    harness::list(list_conn_server_log, harness::filtered("none", "x"));
  }
  EXPECT_EQ(sql("SELECT username FROM conn_server_log"),
            (Texts{"BEGIN IMMEDIATE;", kWriter, kReader}));
  EXPECT_FALSE(log_holds("database is locked"));
  EXPECT_EQ(daemon.stop(), 0);
}

// One patience of two seconds for all statements of a request; nothing is stored by halves.
TEST(Lock, HeldLongerLosesTheRequestAndNothingElse) {
  harness::Daemon daemon;
  EXPECT_EQ(zorv_api::count_failure("mallory"), KX_SUCCESS);
  for (const bool counts : {false, true}) {
    harness::write_file(harness::kLogFile, "");
    const Neighbour neighbour = neighbour_that(kWriter);
    EXPECT_EQ(
        counts ? zorv_api::count_failure("mallory", zorv_api::new_buffer(), 3500) : insert("lost"),
        KX_SUCCESS);
    EXPECT_TRUE(log_holds("database is locked"));
  }
  EXPECT_EQ(insert("kept"), KX_SUCCESS);
  EXPECT_EQ(sql("SELECT username FROM conn_server_log"), Texts{"kept"});
  EXPECT_EQ(zorv_api::count_failure("mallory"), KX_SUCCESS);
  EXPECT_EQ(sql("SELECT username, limit_count FROM privilege_user_block"), Texts{"mallory|2"});
  EXPECT_EQ(daemon.stop(), 0);
}

TEST(Storage, AKillKeepsWhatWasAcknowledged) {
  harness::Daemon daemon;
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(insert("user"), KX_SUCCESS);
  }
  daemon.process().send(SIGKILL);
  EXPECT_EQ(daemon.process().wait(), 128 + SIGKILL);
  EXPECT_EQ(sql("SELECT Count(*) FROM conn_server_log"), Texts{"20"});
}

}  // namespace
