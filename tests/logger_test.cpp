#include "logger.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <thread>
#include <vector>

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
  const std::string prefix = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d )" + std::to_string(getpid());
  const std::regex expected(prefix + R"( \[INFO\] logger_test \[)" + std::to_string(line) +
                            R"(\] TestBody:first 1)" + prefix + R"( \[ERROR\] logger_test \[)" +
                            std::to_string(line + 1) + R"(\] TestBody:second\n)");
  EXPECT_TRUE(std::regex_match(log_content(), expected)) << log_content();
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

TEST_F(LoggerTest, LockIsTakenOnlyAfterALineThatCouldNotOpenItsFile) {
  const std::string folder = harness::test_root() + "/var/lock";
  std::filesystem::remove_all(folder);
  ZORV_LOG(info, "no lock folder\n");
  EXPECT_EQ(log_module._iot_lock_fd_, -1);
  std::filesystem::create_directories(folder);
  ZORV_LOG(info, "lock file opened and closed\n");
  EXPECT_EQ(log_module._iot_lock_fd_, -1);
  EXPECT_TRUE(std::filesystem::exists(harness::test_root() + kLogLockFile));
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
