#include "logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "harness/process.h"
#include "harness/test_root.h"

namespace {

namespace fs = std::filesystem;

LogModule log_module{"logger_test"};

std::string log_content() {
  return harness::read_file(kDefaultLogFile);
}

auto descriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

TEST(Logger, LinesCarryTheirPlaceAndJoinWhereNoNewlineEndsThem) {
  umask(0);
  const int line = __LINE__ + 1;
  ZORV_LOG(info, "first %d", 1);
  ZORV_LOG(error, "second\n");
  const auto head = [](const char* level, int at) {
    return "[-\\d]{10} [:\\d]{8} " + std::to_string(getpid()) + " \\[" + level +
           "\\] logger_test \\[" + std::to_string(at) + "\\] TestBody:";
  };
  const std::regex expected(head("INFO", line) + "first 1" + head("ERROR", line + 1) + "second\n");
  EXPECT_TRUE(std::regex_match(log_content(), expected)) << log_content();
  EXPECT_EQ(fs::status(harness::test_root() + kDefaultLogFile).permissions(), fs::perms{0666});
}

TEST(Logger, ThresholdDropsLowerLevelsWithoutEvaluatingThem) {
  for (const auto& [threshold, written] : {std::pair{10, "dwe"}, {21, "we"}, {40, "e"}, {41, ""}}) {
    __cur_level__ = threshold;
    std::string evaluated;
    ZORV_LOG(debug, "%s", (evaluated += "d").c_str());
    ZORV_LOG(warn, "%s", (evaluated += "w").c_str());
    ZORV_LOG(error, "%s", (evaluated += "e").c_str());
    EXPECT_EQ(evaluated, written) << threshold;
  }
}

TEST(Logger, WritesWhereItIsToldAndSurvivesWhatItFindsThere) {
  const std::string lock = harness::test_root() + kLogLockFile;
  const std::string file = harness::test_root() + kDefaultLogFile;
  const auto before = descriptors();
  alarm(30);  // where a FIFO is waited for
  testing::internal::CaptureStdout();
  __cur_type__ = kLogToStdout;
  ZORV_LOG(info, "shown\n");
  EXPECT_TRUE(testing::internal::GetCapturedStdout().ends_with(":shown\n"));
  __cur_type__ = kLogToFile;
  const std::string other = harness::test_root() + "/other";
  fs::create_symlink(other, lock);
  ZORV_LOG(info, "a link\n");
  EXPECT_FALSE(fs::exists(other));
  fs::remove(lock);
  ASSERT_EQ(mkfifo(lock.c_str(), 0666), 0);
  errno = ENOTTY;
  ZORV_LOG(info, "a FIFO that nobody reads\n");
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_TRUE(log_content().ends_with(":a FIFO that nobody reads\n"));
  fs::rename(lock, file);
  ZORV_LOG(info, "lost\n");
  EXPECT_EQ(descriptors(), before);
}

// The first open fails at a link and the second one finds a file, which the next line would wait
// for.
TEST(Logger, HoldsNoFileThatMayBeAnotherUsers) {
  const std::string lock = harness::test_root() + kLogLockFile;
  const std::string other = harness::test_root() + "/other";
  const std::string link = harness::test_root() + "/link";
  const auto before = descriptors();
  for (const bool has_second_name : {true, false}) {
    fs::create_symlink("nowhere", link);
    std::ofstream(lock).close();
    if (has_second_name) {
      fs::create_hard_link(lock, other);
    }
    harness::Child swapper([&] {
      while (renameat2(AT_FDCWD, link.c_str(), AT_FDCWD, lock.c_str(), RENAME_EXCHANGE) == 0) {
      }
      return 0;
    });
    for (int i = 0; i < 20000 && log_module._iot_lock_fd_ == -1; ++i) {
      ZORV_LOG(info, "%d\n", i);
    }
    EXPECT_EQ(log_module._iot_lock_fd_ == -1, has_second_name);
    swapper.stop();
    for (const std::string& path : {lock, link, other}) {
      fs::remove(path);
    }
  }
  close(log_module._iot_lock_fd_.exchange(-1));
  EXPECT_EQ(descriptors(), before);
}

TEST(Logger, ADescriptorLeftOpenMakesTheNextLineWaitForTheLock) {
  const std::string path = harness::test_root() + kLogLockFile;
  log_module._iot_lock_fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0777);
  struct flock record {};
  record.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(log_module._iot_lock_fd_, F_SETLK, &record), 0);
  harness::Child line([] {
    ZORV_LOG(warn, "waited\n");
    return log_module._iot_lock_fd_ + 1;
  });
  const std::string wait = "grep -q -e '-> .* " + std::to_string(line.pid()) + " ' /proc/locks";
  EXPECT_TRUE(harness::eventually([&wait] { return system(wait.c_str()) == 0; }));
  close(log_module._iot_lock_fd_);
  EXPECT_EQ(line.wait(), 0);
  EXPECT_NE(log_content().find("[WARN] "), std::string::npos);
}

TEST(Logger, LongLinesStayWhole) {
  for (size_t length = 1900; length < 2000; ++length) {  // around the size of the buffer
    const std::string text = std::string(length, 'x') + "\n";
    ZORV_LOG(debug, "%s", text.c_str());
    EXPECT_TRUE(log_content().ends_with(":" + text)) << length;
  }
}

}  // namespace
