// The spool against kills, floods and hostile files, with the real command and the real daemon.
#include "spool.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "descriptor.h"
#include "harness/daemon.h"
#include "spool_file.h"
#include "spool_names.h"

namespace {

namespace fs = std::filesystem;
using harness::sql;
using harness::zorvctl;
using Lines = std::vector<std::string>;

fs::path folder_of(uid_t user) {
  return harness::test_root() + "/var/spool/zorv/" + std::to_string(user);
}

struct Spool : testing::Test {
  Spool() { fs::create_directories(folder_of(geteuid())); }

  static db_conn_server_log record(unsigned long long time) {
    db_conn_server_log record{};
    record.vpn_type = 4;
    record.action = 2;
    record.time = time;
    zorv::copy_text(record.username, "alice");
    return record;
  }
  static size_t keep(unsigned long long time) {
    const db_conn_server_log kept = record(time);
    size_t dropped = 0;
    EXPECT_EQ(zorv::spool::keep(zorv::kServerLog, &kept, dropped), 0);
    return dropped;
  }
  static std::string name(int number) {
    char text[zorv::spool::kNameSize + 1];
    std::snprintf(text, sizeof text, "%019d-%010d-%010d", number, 1, 1);
    return text;
  }
  static void plant(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
  }
  // Delivered since the last time, by their times.
  static Lines delivered() {
    const Lines times = sql("SELECT time FROM conn_server_log ORDER BY id");
    sql("DELETE FROM conn_server_log");
    return times;
  }
};

TEST_F(Spool, LosesNothingToKillsAndRepeatsOneAKillAtMost) {
  constexpr unsigned kRecords = 300;
  for (unsigned time = 1; time <= kRecords; ++time) {
    keep(time);
  }
  const harness::Daemon daemon;
  size_t kills = 0;
  const auto is_empty = [] { return fs::is_empty(folder_of(geteuid())); };
  for (unsigned step = 0; step < 100 && !is_empty(); ++step) {
    harness::Process deliverer({harness::program("zorvctl"), "spool", "deliver"});
    const auto count = sql("SELECT count(*) FROM conn_server_log").at(0);
    const unsigned more = step % 40;
    harness::eventually([&] {
      return !deliverer.running() ||
             std::stoul(sql("SELECT count(*) FROM conn_server_log").at(0)) >=
                 std::stoul(count) + more;
    });
    deliverer.send(SIGKILL);
    kills += deliverer.wait() == 128 + SIGKILL ? 1 : 0;
  }
  EXPECT_TRUE(is_empty());
  EXPECT_GT(kills, 5U);
  EXPECT_EQ(sql("SELECT count(DISTINCT time) FROM conn_server_log"),
            Lines{std::to_string(kRecords)});
  EXPECT_LE(std::stoul(sql("SELECT count(*) FROM conn_server_log").at(0)), kRecords + kills);
  EXPECT_EQ(sql("SELECT count(*) FROM conn_server_log AS one JOIN conn_server_log AS other "
                "ON one.id < other.id AND one.time > other.time"),
            Lines{"0"});
}

TEST_F(Spool, DropsTheOldestOfTooMany) {
  constexpr int kMost = zorv::spool::kMostRecords;
  for (int number = 1; number <= kMost + 1; ++number) {
    plant(folder_of(geteuid()) / name(number), "");
  }
  plant(folder_of(geteuid()) / ("." + name(0)), "of a writer that was killed");
  fs::last_write_time(folder_of(geteuid()) / ("." + name(0)),
                      fs::file_time_type::clock::now() - std::chrono::hours(2));
  EXPECT_EQ(keep(7), 2U);
  EXPECT_FALSE(fs::exists(folder_of(geteuid()) / name(2)));
  EXPECT_TRUE(fs::exists(folder_of(geteuid()) / name(3)));
  const fs::directory_iterator files(folder_of(geteuid()));
  EXPECT_EQ(std::distance(begin(files), end(files)), kMost);
}

TEST_F(Spool, LeavesAloneWhatDoesNotCount) {
  const fs::path folder = folder_of(geteuid());
  const auto right = record(1);
  const std::string whole = zorv::spool::file_text(zorv::kServerLog, &right);
  auto endless = right;
  std::fill(std::begin(endless.outgoing), std::end(endless.outgoing), 'x');
  db_server_list_data session{};
  std::string flipped = whole;
  flipped.back() = static_cast<char>(flipped.back() ^ 1);
  const std::pair<std::string, const char*> texts[] = {
      {"", "hold a whole record"},
      {whole.substr(0, whole.size() - 1), "hold a whole record"},
      {whole + '\0', "hold a whole record"},
      {"X" + whole.substr(1), "hold a whole record"},
      {flipped, "hold a whole record"},
      {zorv::spool::file_text(zorv::kServerLog, &endless), "hold a whole record"},
      {zorv::spool::file_text(zorv::kServerList, &session), "hold a whole record"},
      {std::string(9000, 'x'), "too large"},
  };
  const harness::Daemon daemon;
  const auto expect_left = [&](const fs::path& path, const std::string& why) {
    SCOPED_TRACE(path);
    keep(77);
    const harness::Outcome outcome = zorvctl({"spool", "deliver"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "1 record delivered\n");
    EXPECT_NE(outcome.err.find(path.filename().string() + " is left where it is: "),
              std::string::npos);
    EXPECT_NE(outcome.err.find(why), std::string::npos) << outcome.err;
    EXPECT_EQ(delivered(), Lines{"77"});
    EXPECT_TRUE(fs::is_symlink(path) || fs::exists(path));
    fs::remove_all(path);
  };
  for (const auto& [text, why] : texts) {
    plant(folder / name(1), text);
    expect_left(folder / name(1), why);
  }
  plant(folder / "elsewhere", whole);
  expect_left(folder / "elsewhere", "not a record's name");
  plant(harness::test_root() + "/outside", whole);
  fs::create_symlink(harness::test_root() + "/outside", folder / name(1));
  expect_left(folder / name(1), "not a plain file");
  fs::create_hard_link(harness::test_root() + "/outside", folder / name(1));
  expect_left(folder / name(1), "has other links");
  ASSERT_EQ(mkfifo((folder / name(1)).c_str(), 0600), 0);
  expect_left(folder / name(1), "not a plain file");
  fs::create_directory(folder.parent_path() / "x");
  expect_left(folder.parent_path() / "x", "not a user's folder");
  fs::create_directory(folder.parent_path() / "4711");
  plant(folder.parent_path() / "4711" / name(1), whole);
  expect_left(folder.parent_path() / "4711", "may not call the daemon");

  for (int number = 1; number <= 30; ++number) {
    plant(folder / name(number), "");
  }
  EXPECT_EQ(harness::lines_of(zorvctl({"spool", "list"}).err).size(), 10U);
  os::Descriptor other(open(folder.parent_path().c_str(), O_RDONLY));
  ASSERT_EQ(flock(other.get(), LOCK_EX), 0);
  EXPECT_NE(zorvctl({"spool", "deliver"}).err.find("somebody else is"), std::string::npos);
  other.reset();
  fs::permissions(folder.parent_path(), fs::perms(0777));
  EXPECT_EQ(zorvctl({"spool", "deliver"}).status, 1);
}

// The daemon's users have folders of their own, and nobody gets into another's.
TEST_F(Spool, BelongsToWhomTheAllowListNames) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can be somebody else";
  }
  fs::create_directories(harness::test_root() + "/etc/config/kxbus");
  harness::write_file("/etc/config/kxbus/zorvd.allow", "user 4711\ngroup nogroup\n");
  fs::permissions(harness::test_root(), fs::perms(0711));
  fs::permissions(folder_of(0).parent_path(), fs::perms(0711));
  const harness::Daemon daemon;
  EXPECT_EQ(zorvctl({"spool", "deliver"}).err, "");
  EXPECT_TRUE(fs::exists(folder_of(65534))) << "a member of the group";
  const auto keep_as = [](uid_t user) {
    return harness::Child([user] {
             const auto one = record(user);
             size_t dropped = 0;
             return setuid(user) == 0 ? zorv::spool::keep(zorv::kServerLog, &one, dropped) : 99;
           })
        .wait();
  };
  umask(077);
  EXPECT_EQ(keep_as(4711), 0);
  EXPECT_EQ(keep_as(4712), EACCES);
  // As the service delivers: without leave to pass over permissions.
  const harness::Outcome outcome = harness::run({"/usr/bin/setpriv", "--bounding-set=-all,+chown",
                                                 harness::program("zorvctl"), "spool", "deliver"});
  EXPECT_EQ(outcome.out + outcome.err, "1 record delivered\n");
  EXPECT_EQ(delivered(), Lines{"4711"});
  // Somebody else's file in one's own folder, and one who may no longer.
  const auto one = record(1);
  plant(folder_of(4711) / name(1), zorv::spool::file_text(zorv::kServerLog, &one));
  EXPECT_NE(zorvctl({"spool", "deliver"}).err.find("not of the folder's user"), std::string::npos);
  EXPECT_EQ(keep_as(4711), 0);
  harness::write_file("/etc/config/kxbus/zorvd.allow", "");
  EXPECT_NE(zorvctl({"spool", "deliver"}).err.find("4711 is left where it is: the user may not"),
            std::string::npos);
  EXPECT_EQ(delivered(), Lines{});
  ASSERT_EQ(chown(folder_of(0).c_str(), 4711, 0), 0);
  EXPECT_EQ(keep_as(0), EPERM);
}

}  // namespace
