#include "logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>
#include <vector>

#include "harness/process.h"
#include "harness/test_root.h"

namespace {

LogModule log_module{"logger_test"};

std::string log_content() {
  return harness::read_file(kDefaultLogFile);
}

class LoggerTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::remove(harness::test_root() + kDefaultLogFile);
    __cur_level__ = 10;
    __cur_type__ = kLogToFile;
    snprintf(__log_file__, sizeof __log_file__, "%s", kDefaultLogFile);
  }
};

TEST_F(LoggerTest, LineCarriesItsPlaceAndJoinsTheNextWithoutNewline) {
  const int line = __LINE__ + 1;
  ZORV_LOG(info, "first %d", 1);
  ZORV_LOG(error, "second\n");
  const std::string prefix =
      "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} " + std::to_string(getpid());
  const std::string expected = "^" + prefix + " \\[INFO\\] logger_test \\[" + std::to_string(line) +
                               "\\] TestBody:first 1" + prefix + " \\[ERROR\\] logger_test \\[" +
                               std::to_string(line + 1) + "\\] TestBody:second\n$";
  regex_t pattern;
  ASSERT_EQ(regcomp(&pattern, expected.c_str(), REG_EXTENDED | REG_NOSUB), 0);
  EXPECT_EQ(regexec(&pattern, log_content().c_str(), 0, nullptr, 0), 0) << log_content();
  regfree(&pattern);
}

TEST_F(LoggerTest, ThresholdDropsLowerLevelsWithoutEvaluatingThem) {
  struct Case {
    int threshold;
    const char* written;
  };
  for (const Case& c : {Case{10, "diwe"}, Case{11, "iwe"}, Case{20, "iwe"}, Case{21, "we"},
                        Case{30, "we"}, Case{31, "e"}, Case{40, "e"}, Case{41, ""}}) {
    std::filesystem::remove(harness::test_root() + kDefaultLogFile);
    __cur_level__ = c.threshold;
    std::string evaluated;
    const auto mark = [&evaluated](const char* letter) {
      evaluated += letter;
      return letter;
    };
    ZORV_LOG(debug, "%s", mark("d"));
    ZORV_LOG(info, "%s", mark("i"));
    ZORV_LOG(warn, "%s", mark("w"));
    ZORV_LOG(error, "%s", mark("e"));
    EXPECT_EQ(evaluated, c.written) << c.threshold;
    EXPECT_EQ(log_content().empty(), evaluated.empty()) << c.threshold;
  }
}

TEST_F(LoggerTest, DestinationsAndEmptyPath) {
  __log_file__[0] = '\0';
  ZORV_LOG(info, "nowhere\n");
  __cur_type__ = kLogToStdout;
  testing::internal::CaptureStdout();
  ZORV_LOG(info, "on standard output\n");
  __cur_type__ = 2;
  ZORV_LOG(info, "no such destination\n");
  fflush(stdout);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find(":on standard output\n"), std::string::npos);
  EXPECT_EQ(out.find("no such"), std::string::npos);
  EXPECT_EQ(log_content(), "");
}

TEST_F(LoggerTest, DeletedFileIsMadeAgainAndErrnoIsKept) {
  ZORV_LOG(info, "before\n");
  std::filesystem::remove(harness::test_root() + kDefaultLogFile);
  errno = ENOTTY;
  ZORV_LOG(info, "after\n");
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_NE(log_content().find("after"), std::string::npos);
  std::filesystem::remove_all(harness::test_root() + "/var/log");
  ZORV_LOG(info, "lost\n");
  std::filesystem::create_directories(harness::test_root() + "/var/log/network");
}

TEST_F(LoggerTest, LockFileIsOpenedAndClosedOnceALine) {
  const std::string folder = harness::test_root() + "/var/lock";
  std::filesystem::remove_all(folder);
  ZORV_LOG(info, "no lock folder\n");
  EXPECT_EQ(log_module._iot_lock_fd_, -1);
  std::filesystem::create_directories(folder);
  ZORV_LOG(info, "lock file opened and closed\n");
  EXPECT_EQ(log_module._iot_lock_fd_, -1);
  EXPECT_TRUE(std::filesystem::exists(harness::test_root() + kLogLockFile));
}

TEST_F(LoggerTest, AFifoInPlaceOfAFileIsNotWaitedFor) {
  const std::string lock = harness::test_root() + kLogLockFile;
  std::filesystem::remove(lock);
  ASSERT_EQ(mkfifo(lock.c_str(), 0666), 0);
  ZORV_LOG(info, "without the lock\n");
  EXPECT_NE(log_content().find("without the lock"), std::string::npos);
  std::filesystem::remove(lock);
  const std::string log = harness::test_root() + kDefaultLogFile;
  std::filesystem::remove(log);
  ASSERT_EQ(mkfifo(log.c_str(), 0666), 0);
  ZORV_LOG(info, "lost\n");
  std::filesystem::remove(log);
}

TEST_F(LoggerTest, ADescriptorLeftOpenMakesTheNextLineWaitForTheLock) {
  const std::string path = harness::test_root() + kLogLockFile;
  log_module._iot_lock_fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0777);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const harness::Child holder([&]() -> int {
    const int fd = open(path.c_str(), O_WRONLY);
    struct flock record {};
    record.l_type = F_WRLCK;
    record.l_whence = SEEK_SET;
    fcntl(fd, F_SETLKW, &record);
    [[maybe_unused]] const ssize_t told = write(ends[1], "", 1);
    return pause();
  });
  char byte;
  ASSERT_EQ(read(ends[0], &byte, 1), 1);
  std::thread line([] { ZORV_LOG(info, "waited\n"); });
  // The line's thread is seen waiting for the lock (its process stands in the kernel's list of
  // those who wait), and nothing is written.
  const std::string waiting = "-> POSIX  ADVISORY  WRITE " + std::to_string(getpid());
  std::string locks;
  while (locks.find(waiting) == std::string::npos) {
    std::ifstream file("/proc/locks");
    locks.assign(std::istreambuf_iterator<char>(file), {});
  }
  EXPECT_EQ(log_content(), "");
  kill(holder.pid(), SIGKILL);
  line.join();
  EXPECT_NE(log_content().find("waited"), std::string::npos);
  EXPECT_EQ(log_module._iot_lock_fd_, -1);
}

TEST_F(LoggerTest, AForkedProcessSignsWithItsOwnId) {
  ZORV_LOG(info, "parent\n");
  harness::Child child([] {
    ZORV_LOG(info, "child\n");
    return 0;
  });
  const pid_t id = child.pid();
  child.wait();
  EXPECT_NE(log_content().find(" " + std::to_string(getpid()) + " [INFO]"), std::string::npos);
  EXPECT_NE(log_content().find(" " + std::to_string(id) + " [INFO]"), std::string::npos);
}

TEST_F(LoggerTest, LongLinesStayWholeAmongThreads) {
  constexpr int kLines = 50;
  std::vector<std::thread> threads;
  for (char letter = 'a'; letter < 'e'; ++letter) {
    threads.emplace_back([letter] {
      for (int i = 0; i < kLines; ++i) {
        ZORV_LOG(debug, "%s\n", std::string(6000, letter).c_str());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::istringstream stream(log_content());
  int lines = 0;
  for (std::string line; std::getline(stream, line); ++lines) {
    const std::string text = line.substr(line.rfind(':') + 1);
    EXPECT_EQ(text.size(), 6000U);
    EXPECT_EQ(text.find_first_not_of(text[0]), std::string::npos);
  }
  EXPECT_EQ(lines, 4 * kLines);
}

}  // namespace
