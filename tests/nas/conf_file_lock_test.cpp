#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "conf_file_lock.h"
#include "harness/process.h"
#include "harness/test_root.h"
#include "rooted.h"

namespace {

using nas::ConfLock;

constexpr const char* kFile = "/etc/config/vpn_options.conf";

int try_lock(const char* path, ConfLock kind) {
  return nas::lock_conf_file(path, kind, std::chrono::milliseconds(0));
}

bool is_free(const char* path) {
  const int handle = try_lock(path, ConfLock::write);
  return handle >= 0 && conf_file_unlock(handle) == 0;
}

// Counts in the file as a careless program does: truncates it first, writes afterwards.
int count_up(int times) {
  for (int i = 0; i < times; ++i) {
    const nas::ConfFileLock lock(conf_file_write_lock(kFile));
    const std::string before = harness::read_file(kFile);
    std::ofstream file(os::rooted(kFile));
    if (!lock.held() || before.empty() || !(file << std::stoi(before) + 1 << std::flush)) {
      return 1;
    }
  }
  return 0;
}

int read_whole(int times) {
  for (int i = 0; i < times; ++i) {
    const nas::ConfFileLock lock(conf_file_read_lock(kFile));
    if (!lock.held() || harness::read_file(kFile).empty()) {
      return 1;
    }
  }
  return 0;
}

TEST(ConfFileLock, ACrowdOfReadersAndWritersSeesWholeDocuments) {
  harness::write_file(kFile, "0");
  std::vector<std::unique_ptr<harness::Child>> children;
  for (int i = 0; i < 14; ++i) {
    children.push_back(std::make_unique<harness::Child>(
        [i] { return i % 7 != 0 ? read_whole(100) : count_up(100); }));
  }
  for (const auto& child : children) {
    EXPECT_EQ(child->wait(), 0);
  }
  EXPECT_EQ(harness::read_file(kFile), "200");
  EXPECT_TRUE(is_free(kFile));
}

TEST(ConfFileLock, OnlyReadersOfOnePathShare) {
  constexpr struct {
    ConfLock held, asked;
    const char* path;
    bool granted;
  } kCases[] = {
      {ConfLock::read, ConfLock::read, kFile, true},
      {ConfLock::read, ConfLock::write, kFile, false},
      {ConfLock::write, ConfLock::read, kFile, false},
      {ConfLock::write, ConfLock::write, kFile, false},
      {ConfLock::write, ConfLock::write, "/etc/config/vpn_block.conf", true},
      {ConfLock::write, ConfLock::write, "/etc/config%2Fvpn_options.conf", true},
  };
  const auto descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = descriptors();
  for (const auto& c : kCases) {
    const nas::ConfFileLock held(try_lock(kFile, c.held));
    ASSERT_TRUE(held.held());
    const nas::ConfFileLock asked(try_lock(c.path, c.asked));
    const int reason = errno;
    EXPECT_EQ(asked.held(), c.granted) << c.path;
    EXPECT_TRUE(asked.held() || reason == ETIMEDOUT) << reason;
  }
  EXPECT_TRUE(is_free(kFile));
  EXPECT_EQ(descriptors(), before);
}

TEST(ConfFileLock, WrongPathsFoldersAndFilesAreRefused) {
  const std::string folder = os::rooted(nas::kConfLockFolder);
  const std::string file = folder + "/%2Fetc%2Fconfig%2Fvpn_options.conf";
  const std::string deep = "/" + std::string(300, 'x');
  ASSERT_TRUE(is_free(kFile));
  struct stat status {};
  ASSERT_EQ(stat(folder.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700U);
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  const auto refused = [](const char* path, int reason) {
    EXPECT_EQ(conf_file_read_lock(path), -1);
    EXPECT_EQ(errno, reason);
    EXPECT_EQ(conf_file_write_lock(path), -1);
    EXPECT_EQ(errno, reason);
  };
  refused(nullptr, EINVAL);
  refused("", EINVAL);
  refused("etc/a", EINVAL);
  refused(deep.c_str(), ENAMETOOLONG);
  for (const mode_t mode : {0770U, 0702U}) {
    ASSERT_EQ(chmod(folder.c_str(), mode), 0);
    refused(kFile, EPERM);
  }
  ASSERT_EQ(chmod(folder.c_str(), 0700), 0);
  if (chown(folder.c_str(), 12345, 0) == 0) {  // where the test is root
    refused(kFile, EPERM);
    ASSERT_EQ(chown(folder.c_str(), 0, 0), 0);
  }
  ASSERT_EQ(rename(file.c_str(), (file + ".real").c_str()), 0);
  ASSERT_EQ(symlink((file + ".real").c_str(), file.c_str()), 0);
  refused(kFile, ELOOP);
  ASSERT_EQ(unlink(file.c_str()), 0);
  ASSERT_EQ(rename(folder.c_str(), (folder + ".real").c_str()), 0);
  ASSERT_EQ(symlink((folder + ".real").c_str(), folder.c_str()), 0);
  refused(kFile, ENOTDIR);
  EXPECT_EQ(conf_file_unlock(-1), -1);
}

// The lock goes with its holder, whatever program was started from it meanwhile.
TEST(ConfFileLock, AKilledHolderFreesTheLock) {
  int held[2];
  int program[2];
  ASSERT_EQ(pipe(held), 0);
  ASSERT_EQ(pipe(program), 0);
  harness::Child holder([&] {
    const int handle = conf_file_write_lock(kFile);
    if (handle >= 0 && fork() == 0) {
      close(program[1]);
      dup2(program[0], STDIN_FILENO);
      return execlp("sh", "sh", "-c", ("exec cat >&" + std::to_string(held[1])).c_str(), nullptr);
    }
    return pause();
  });
  char byte = 'x';
  ASSERT_EQ(write(program[1], &byte, 1), 1);
  ASSERT_EQ(read(held[0], &byte, 1), 1) << "the program runs";
  EXPECT_EQ(try_lock(kFile, ConfLock::read), -1);
  ASSERT_EQ(kill(holder.pid(), SIGKILL), 0);
  EXPECT_EQ(holder.wait(), 128 + SIGKILL);
  EXPECT_TRUE(is_free(kFile));
  close(program[1]);
}

TEST(ConfFileLock, OutlivesTheFileItself) {
  const std::string path = os::rooted("/etc/config/new.conf");
  const nas::ConfFileLock held(conf_file_write_lock("/etc/config/new.conf"));
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  harness::write_file("/etc/config/new.conf", "made");
  EXPECT_FALSE(is_free("/etc/config/new.conf"));
  ASSERT_EQ(unlink(path.c_str()), 0);
  EXPECT_FALSE(is_free("/etc/config/new.conf"));
}

}  // namespace
