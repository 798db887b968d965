// Files that cannot grow and memory that is short, in the daemon and in its caller: the caller gets
// a status that tells the truth, nothing stays open, and the next request is served.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/records.h"
#include "zorv_calls.h"

namespace {

void limit(pid_t process, __rlimit_resource resource, rlim_t most = RLIM_INFINITY) {
  const rlimit soft{most, RLIM_INFINITY};
  ASSERT_EQ(prlimit(process, resource, &soft, nullptr), 0);
}

int call(const char* method, const std::string& body) {
  return zorv_api::call(zorv_api::new_buffer(), method, body.data(), body.size());
}

int query(record_int64 count, size_t ballast = 0) {
  return call(zorv::kServerLog.methods.query,
              harness::bytes_of(harness::page(count)) + std::string(ballast, 'x'));
}

TEST(Limits, FilesThatCannotGrowFailOneRequest) {
  constexpr size_t kRows = 40;  // an answer of four blocks
  signal(SIGXFSZ, SIG_IGN);     // the daemon's as well
  harness::Daemon daemon;
  harness::insert_rows("conn_server_log", kRows, "username", "'user' || i");
  ASSERT_EQ(query(-1), KX_SUCCESS);
  const int resting = harness::open_descriptors(daemon.pid());
  for (const size_t most : {size_t{0}, size_t{100'000}, kRows * sizeof(db_conn_server_log)}) {
    limit(daemon.pid(), RLIMIT_FSIZE, most);
    EXPECT_EQ(query(-1), KX_IS_REJECT) << most;
    EXPECT_EQ(query(3), KX_SUCCESS) << most;
  }
  limit(daemon.pid(), RLIMIT_FSIZE, 4096);
  harness::write_file(harness::kLogFile, "");
  EXPECT_EQ(call(zorv::kServerLog.methods.insert, "alice"), KX_SUCCESS);
  EXPECT_TRUE(harness::log_holds("err = disk I/O error"));
  limit(daemon.pid(), RLIMIT_FSIZE);
  limit(getpid(), RLIMIT_FSIZE, 70'000);
  EXPECT_EQ(query(3, 100'000), KX_IO_FAILURE);
  limit(getpid(), RLIMIT_FSIZE);
  EXPECT_EQ(query(3, 100'000), KX_SUCCESS);
  EXPECT_EQ(harness::sql("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
  EXPECT_TRUE(
      harness::eventually([&] { return harness::open_descriptors(daemon.pid()) <= resting; }));
  EXPECT_EQ(daemon.stop(), 0);
}

// Leaves a process what it has of memory, and some megabytes.
void limit_memory(pid_t process, rlim_t megabytes) {
  std::ifstream file("/proc/" + std::to_string(process) + "/statm");
  rlim_t pages = 0;
  file >> pages;
  limit(process, RLIMIT_AS, pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (megabytes << 20));
}

TEST(Limits, MemoryThatIsShortFailsOneRequest) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer's shadow is larger than any limit";
#endif
  constexpr size_t kMuch = 16 << 20;
  harness::Daemon daemon;
  harness::insert_rows("conn_server_log", 10'000, "username", "'user' || i");
  ASSERT_EQ(query(-1, kMuch), KX_SUCCESS);
  limit_memory(daemon.pid(), 8);
  EXPECT_EQ(query(3, kMuch), KX_IO_FAILURE) << "no room to map it";
  limit_memory(daemon.pid(), 24);
  EXPECT_EQ(call("db_privilege_user_block_check", std::string(kMuch, 'x')), KX_IS_REJECT)
      << "no room for its copy";
  EXPECT_EQ(query(3), KX_SUCCESS);
  limit(daemon.pid(), RLIMIT_AS);
  EXPECT_EQ(daemon.stop(), 0);
}

// A control group of the first version, which kills instead of refusing.
TEST(Limits, AControlGroupsMemoryIsLeftToTheDaemon) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer's shadow counts, too";
#endif
  const std::string group = "/sys/fs/cgroup/memory/zorv-test." + std::to_string(getpid());
  if (std::error_code error; !std::filesystem::create_directory(group, error)) {
    GTEST_SKIP() << "no control group can be made here";
  }
  const auto set = [&group](const char* name, const std::string& value) {
    std::ofstream(group + name) << value;
  };
  set("/memory.limit_in_bytes", "48M");
  harness::Daemon daemon;
  harness::insert_rows("conn_server_log", 10'000, "username", "'user' || i");
  set("/cgroup.procs", std::to_string(daemon.pid()));
  EXPECT_EQ(query(-1), KX_IS_REJECT) << "52 MB";
  EXPECT_EQ(query(3000), KX_SUCCESS);
  EXPECT_EQ(daemon.stop(), 0);
  std::filesystem::remove(group);
}

}  // namespace
