#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "conf_file_lock.h"
#include "harness/process.h"
#include "harness/test_root.h"
#include "rooted.h"

namespace {

namespace fs = std::filesystem;
using nas::ConfLock;

constexpr const char* kFile = "/etc/config/vpn_options.conf";

int try_lock(const char* path, ConfLock kind) {
  return nas::lock_conf_file(path, kind, std::chrono::milliseconds(0));
}

bool is_free() {
  const int handle = try_lock(kFile, ConfLock::write);
  return handle >= 0 && conf_file_unlock(handle) == 0;
}

// Counts in the file as a careless program does: truncates it first, writes afterwards.
int count_to_hundred() {
  for (int i = 0; i < 100; ++i) {
    const nas::ConfFileLock lock(conf_file_write_lock(kFile));
    const std::string before = harness::read_file(kFile);
    harness::write_file(kFile, std::to_string(atoi(before.c_str()) + 1));
  }
  return 0;
}

TEST(ConfFileLock, WritersWaitForEachOther) {
  harness::Child other(count_to_hundred);
  EXPECT_EQ(count_to_hundred() + other.wait(), 0);
  EXPECT_EQ(harness::read_file(kFile), "200");
}

TEST(ConfFileLock, OnlyReadersOfOnePathShare) {
  constexpr std::tuple<ConfLock, ConfLock, const char*, bool> kCases[] = {
      {ConfLock::read, ConfLock::read, kFile, true},
      {ConfLock::read, ConfLock::write, kFile, false},
      {ConfLock::write, ConfLock::read, kFile, false},
      {ConfLock::write, ConfLock::write, "/etc/config%2Fvpn_options.conf", true},
  };
  for (const auto& [first, second, path, granted] : kCases) {
    const nas::ConfFileLock held(try_lock(kFile, first));
    fs::remove(os::rooted(kFile));  // the lock does not go with the file
    const nas::ConfFileLock asked(try_lock(path, second));
    EXPECT_TRUE(granted || errno == ETIMEDOUT) << errno;
    EXPECT_EQ(asked.held(), granted) << path;
  }
  const int handle = try_lock(kFile, ConfLock::write);
  EXPECT_EQ(fcntl(handle, F_GETFD), FD_CLOEXEC);
  const int copy = dup(handle);  // as a child that is just being started may have one
  EXPECT_EQ(conf_file_unlock(handle), 0);
  EXPECT_EQ(fcntl(handle, F_GETFD), -1);
  EXPECT_TRUE(is_free());
  close(copy);
}

TEST(ConfFileLock, WrongPathsFoldersAndFilesAreRefused) {
  const std::string folder = os::rooted(nas::kConfLockFolder);
  const std::string file = folder + "/%2Fetc%2Fconfig%2Fvpn_options.conf";
  const auto reason = [](const char* path) {
    EXPECT_EQ(conf_file_read_lock(path), -1);
    return errno;
  };
  umask(0);
  ASSERT_TRUE(is_free());
  EXPECT_EQ(fs::status(folder).permissions(), fs::perms{0700});
  EXPECT_EQ(fs::status(file).permissions(), fs::perms{0600});
  EXPECT_EQ(reason("etc/a"), EINVAL);
  fs::permissions(folder, fs::perms{0770});
  EXPECT_EQ(reason(kFile), EPERM);
  fs::permissions(folder, fs::perms{0700});
  if (chown(folder.c_str(), 12345, 0) == 0) {  // where the test is root
    EXPECT_EQ(reason(kFile), EPERM);
    EXPECT_EQ(chown(folder.c_str(), 0, 0), 0);
  }
  for (const auto& [path, expected] : {std::pair{file, ELOOP}, {folder, ENOTDIR}}) {
    fs::rename(path, path + ".real");
    fs::create_symlink(path + ".real", path);
    EXPECT_EQ(reason(kFile), expected);
    fs::remove(path);
  }
}

}  // namespace
