#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "conf_file_lock.h"
#include "harness/process.h"
#include "harness/test_root.h"
#include "rooted.h"

namespace {

using nas::ConfLock;
using std::chrono::milliseconds;

constexpr const char* kFile = "/etc/config/vpn_options.conf";

int try_lock(const char* path, ConfLock kind) {
  return nas::lock_conf_file(path, kind, milliseconds(0));
}

// True when nobody holds `path`.
bool is_free(const char* path) {
  const int handle = try_lock(path, ConfLock::write);
  return handle >= 0 && conf_file_unlock(handle) == 0;
}

struct Pipe {
  Pipe() { EXPECT_EQ(pipe(ends), 0); }
  ~Pipe() {
    close(ends[0]);
    close(ends[1]);
  }
  void tell() const { EXPECT_EQ(write(ends[1], "x", 1), 1); }
  void hear() const {
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
  }
  int ends[2];
};

// Saves as a careless program does: truncates first, writes in pieces.
int save_many(char letter, int times) {
  const std::string half(6000, letter);
  for (int i = 0; i < times; ++i) {
    const nas::ConfFileLock lock(conf_file_write_lock(kFile));
    FILE* file = lock.held() ? fopen(os::rooted(kFile).c_str(), "wb") : nullptr;
    if (file == nullptr) {
      return 1;
    }
    for (int piece = 0; piece < 2; ++piece) {
      fwrite(half.data(), 1, half.size(), file);
      fflush(file);
    }
    fclose(file);
  }
  return 0;
}

// 1 where a document was torn.
int read_many(int times) {
  for (int i = 0; i < times; ++i) {
    const nas::ConfFileLock lock(conf_file_read_lock(kFile));
    const std::string text = harness::read_file(kFile);
    if (!lock.held() || text.size() != 12000 ||
        text.find_first_not_of(text[0]) != std::string::npos) {
      return 1;
    }
  }
  return 0;
}

TEST(ConfFileLock, TwoWritersAndTwentyReadersSeeWholeDocuments) {
  ASSERT_EQ(save_many('0', 1), 0);
  std::vector<std::unique_ptr<harness::Child>> children;
  for (int i = 0; i < 22; ++i) {
    children.push_back(std::make_unique<harness::Child>(
        [i] { return i < 20 ? read_many(30) : save_many(i == 20 ? 'a' : 'b', 40); }));
  }
  for (const auto& child : children) {
    EXPECT_EQ(child->wait(), 0);
  }
  EXPECT_TRUE(is_free(kFile));
}

TEST(ConfFileLock, ThreadsOfOneProcessExcludeEachOther) {
  int counter = 0;
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&counter] {
      for (int turn = 0; turn < 50; ++turn) {
        const nas::ConfFileLock lock(conf_file_write_lock(kFile));
        const int seen = counter;
        std::this_thread::yield();
        counter = lock.held() ? seen + 1 : seen;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(counter, 400);
}

TEST(ConfFileLock, OnlyReadersShare) {
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
      // One file under other names, and other files under similar names.
      {ConfLock::write, ConfLock::read, "//etc/./config/x/..//vpn_options.conf", false},
      {ConfLock::write, ConfLock::read, "/etc/config%2Fvpn_options.conf", true},
      {ConfLock::write, ConfLock::read, "/%2Fetc%2Fconfig%2Fvpn_options.conf", true},
  };
  for (const auto& c : kCases) {
    const int held = try_lock(kFile, c.held);
    ASSERT_GE(held, 0);
    const int asked = try_lock(c.path, c.asked);
    const int reason = errno;
    EXPECT_EQ(asked >= 0, c.granted) << c.path;
    if (asked < 0) {
      EXPECT_EQ(reason, ETIMEDOUT) << c.path;
    } else {
      EXPECT_EQ(conf_file_unlock(asked), 0);
    }
    EXPECT_EQ(conf_file_unlock(held), 0);
  }
}

TEST(ConfFileLock, WrongPathsAndFoldersAreRefused) {
  const std::string deep = "/" + std::string(300, 'x');
  const struct {
    const char* path;
    int reason;
  } cases[] = {{nullptr, EINVAL}, {"", EINVAL}, {"etc/a", EINVAL}, {deep.c_str(), ENAMETOOLONG}};
  for (const auto& c : cases) {
    EXPECT_EQ(conf_file_read_lock(c.path), -1);
    EXPECT_EQ(errno, c.reason);
    EXPECT_EQ(conf_file_write_lock(c.path), -1);
    EXPECT_EQ(errno, c.reason);
  }
  ASSERT_TRUE(is_free(kFile));
  const std::string folder = os::rooted(nas::kConfLockFolder);
  ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
  EXPECT_EQ(conf_file_read_lock(kFile), -1) << "others could write to it";
  EXPECT_EQ(errno, EPERM);
  ASSERT_EQ(chmod(folder.c_str(), 0700), 0);
  EXPECT_TRUE(is_free(kFile));
}

TEST(ConfFileLock, OnlyTheOwnHandleUnlocks) {
  const int stale = conf_file_write_lock(kFile);
  ASSERT_EQ(conf_file_unlock(stale), 0);
  // The same descriptor number serves again.
  const int held = conf_file_write_lock(kFile);
  ASSERT_GE(held, 0);
  Pipe answer;
  harness::Child other([&answer] {
    const int handle = conf_file_write_lock("/etc/config/other.conf");
    return write(answer.ends[1], &handle, sizeof handle) == sizeof handle ? 0 : 1;
  });
  int foreign = -1;
  ASSERT_EQ(read(answer.ends[0], &foreign, sizeof foreign), static_cast<ssize_t>(sizeof foreign));
  ASSERT_EQ(other.wait(), 0);

  std::vector<int> wrong = {stale, foreign, held + 1, INT_MIN, -1, INT_MAX};
  for (int descriptor = 0; descriptor < 64; ++descriptor) {
    wrong.push_back(descriptor);
  }
  for (const int handle : wrong) {
    EXPECT_EQ(conf_file_unlock(handle), -1) << handle;
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_FALSE(is_free(kFile));
  // A child has the number but not the lock.
  EXPECT_EQ(harness::Child([held] { return conf_file_unlock(held) == -1 ? 0 : 1; }).wait(), 0);
  EXPECT_FALSE(is_free(kFile));
  EXPECT_EQ(conf_file_unlock(held), 0);
  EXPECT_EQ(conf_file_unlock(held), -1);
}

// The lock goes with its holder, whoever was forked or started from it meanwhile.
TEST(ConfFileLock, KilledHolderFreesTheLock) {
  for (const char* heir : {"none", "forked", "started"}) {
    Pipe held;
    Pipe end;
    harness::Child holder([&] {
      if (conf_file_write_lock(kFile) < 0) {
        return 1;
      }
      if (heir != std::string("none") && fork() == 0) {
        close(end.ends[1]);
        if (heir == std::string("started")) {
          dup2(end.ends[0], STDIN_FILENO);
          execlp("sh", "sh", "-c", "exec cat >/dev/null", nullptr);
          return 1;
        }
        end.hear();
        return 0;
      }
      held.tell();
      for (;;) {
        pause();
      }
    });
    held.hear();
    EXPECT_EQ(try_lock(kFile, ConfLock::read), -1) << heir;
    ASSERT_EQ(kill(holder.pid(), SIGKILL), 0);
    EXPECT_EQ(holder.wait(), 128 + SIGKILL);
    // A child that has just been forked may still be on its way to giving up its copy.
    const int handle = conf_file_write_lock(kFile);
    EXPECT_GE(handle, 0) << heir;
    EXPECT_EQ(conf_file_unlock(handle), 0);
    end.tell();
  }
}

TEST(ConfFileLock, WaitingWriterGoesBeforeLaterReaders) {
  const int first = conf_file_read_lock(kFile);
  ASSERT_GE(first, 0);
  std::atomic<bool> written = false;
  std::thread writer([&written] {
    const nas::ConfFileLock lock(conf_file_write_lock(kFile));
    written = lock.held();
  });
  // Readers get in until the writer stands at the gate.
  for (int later = 0; (later = try_lock(kFile, ConfLock::read)) >= 0;) {
    EXPECT_EQ(conf_file_unlock(later), 0);
    std::this_thread::yield();
  }
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_FALSE(written);
  EXPECT_EQ(conf_file_unlock(first), 0);
  writer.join();
  EXPECT_TRUE(written);
  EXPECT_TRUE(is_free(kFile));
}

TEST(ConfFileLock, OutlivesTheFileItself) {
  const std::string path = os::rooted("/etc/config/new.conf");
  const int held = conf_file_write_lock("/etc/config/new.conf");
  ASSERT_GE(held, 0);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  for (const char* content : {"made", "replaced"}) {
    harness::write_file("/etc/config/next.conf", content);
    ASSERT_EQ(rename(os::rooted("/etc/config/next.conf").c_str(), path.c_str()), 0);
    EXPECT_FALSE(is_free("/etc/config/new.conf")) << content;
  }
  ASSERT_EQ(unlink(path.c_str()), 0);
  EXPECT_FALSE(is_free("/etc/config/new.conf"));
  EXPECT_EQ(conf_file_unlock(held), 0);
  EXPECT_TRUE(is_free("/etc/config/new.conf"));
}

TEST(ConfFileLock, TableFillsAndEmpties) {
  std::vector<int> handles;
  for (int i = 0; i < nas::kMostConfLocks; ++i) {
    handles.push_back(try_lock(kFile, ConfLock::read));
    ASSERT_GE(handles.back(), 0) << i;
  }
  EXPECT_EQ(try_lock(kFile, ConfLock::read), -1);
  EXPECT_EQ(errno, EMFILE);
  std::sort(handles.begin(), handles.end());
  EXPECT_EQ(std::unique(handles.begin(), handles.end()), handles.end());
  for (const int handle : handles) {
    EXPECT_EQ(conf_file_unlock(handle), 0);
  }
  EXPECT_TRUE(is_free(kFile));
}

}  // namespace
