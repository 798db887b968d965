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

const std::string& log_path() {
  static const std::string path = harness::test_root() + kDefaultLogFile;
  return path;
}

std::string log_content() {
  return harness::read_file(kDefaultLogFile);
}

TEST(Logger, LinesCarryTheirPlaceAndJoinWhereNoNewlineEndsThem) {
  umask(0);
  const int line = __LINE__ + 1;
  ZORV_LOG(info, "first %d", 1);
  ZORV_LOG(error, "second\n");
  const harness::Child child([] {
    ZORV_LOG(warn, "child\n");
    return 0;
  });
  EXPECT_TRUE(harness::eventually([] { return log_content().ends_with(":child\n"); }));
  const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} ";
  const auto place = [](pid_t process, const char* level, int at) {
    return std::to_string(process) + " \\[" + level + "\\] logger_test \\[" + std::to_string(at) +
           "\\] ";
  };
  const std::string expected = stamp + place(getpid(), "INFO", line) + "TestBody:first 1" + stamp +
                               place(getpid(), "ERROR", line + 1) + "TestBody:second\n" + stamp +
                               place(child.pid(), "WARN", line + 3) + "operator\\(\\):child\n$";
  regex_t pattern;
  ASSERT_EQ(regcomp(&pattern, expected.c_str(), REG_EXTENDED | REG_NOSUB), 0);
  EXPECT_EQ(regexec(&pattern, log_content().c_str(), 0, nullptr, 0), 0) << log_content();
  regfree(&pattern);
  struct stat about {};
  ASSERT_EQ(stat(log_path().c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 0777, 0666U);
}

TEST(Logger, ThresholdDropsLowerLevelsWithoutEvaluatingThem) {
  for (const auto& [threshold, written] : {std::pair{10, "diwe"},
                                           {11, "iwe"},
                                           {20, "iwe"},
                                           {21, "we"},
                                           {31, "e"},
                                           {40, "e"},
                                           {41, ""}}) {
    std::filesystem::remove(log_path());
    __cur_level__ = threshold;
    std::string evaluated;
    const auto mark = [&evaluated](const char* letter) {
      evaluated += letter;
      return letter;
    };
    ZORV_LOG(debug, "%s", mark("d"));
    ZORV_LOG(info, "%s", mark("i"));
    ZORV_LOG(warn, "%s", mark("w"));
    ZORV_LOG(error, "%s", mark("e"));
    EXPECT_EQ(evaluated, written) << threshold;
    EXPECT_EQ(log_content().empty(), evaluated.empty()) << threshold;
  }
}

TEST(Logger, WritesWhereItIsToldAndSurvivesWhatItFindsThere) {
  const std::string lock = harness::test_root() + kLogLockFile;
  const int free_descriptor = dup(STDERR_FILENO);
  close(free_descriptor);
  alarm(30);  // where a FIFO is waited for
  testing::internal::CaptureStdout();
  for (const int destination : {kLogToStdout, 2}) {
    __cur_type__ = destination;
    ZORV_LOG(info, "%d\n", destination);
  }
  fflush(stdout);
  EXPECT_TRUE(testing::internal::GetCapturedStdout().ends_with(":0\n"));
  __cur_type__ = kLogToFile;
  __log_file__[0] = '\0';
  ZORV_LOG(info, "nowhere\n");
  EXPECT_EQ(log_content(), "");
  snprintf(__log_file__, sizeof __log_file__, "%s", kDefaultLogFile);

  std::filesystem::remove_all(harness::test_root() + "/var/lock");
  ZORV_LOG(info, "no folder for the lock\n");
  std::filesystem::create_directories(harness::test_root() + "/var/lock");
  ASSERT_EQ(mkfifo(lock.c_str(), 0666), 0);
  errno = ENOTTY;
  ZORV_LOG(info, "a FIFO that nobody reads\n");
  EXPECT_EQ(errno, ENOTTY);
  std::filesystem::remove(lock);
  ZORV_LOG(info, "a lock file is made\n");
  EXPECT_TRUE(std::filesystem::is_regular_file(lock));
  const std::string three = log_content();
  EXPECT_EQ(std::count(three.begin(), three.end(), '\n'), 3);

  std::filesystem::remove(log_path());
  ZORV_LOG(info, "after the file was deleted\n");
  EXPECT_TRUE(log_content().ends_with(":after the file was deleted\n"));
  std::filesystem::remove(log_path());
  ASSERT_EQ(mkfifo(log_path().c_str(), 0666), 0);
  ZORV_LOG(info, "lost\n");
  EXPECT_EQ(dup(STDERR_FILENO), free_descriptor) << "all are closed again";
}

TEST(Logger, ADescriptorLeftOpenMakesTheNextLineWaitForTheLock) {
  const std::string path = harness::test_root() + kLogLockFile;
  log_module._iot_lock_fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0777);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const harness::Child holder([&]() -> int {
    const int fd = open(path.c_str(), O_WRONLY);
    struct flock record {};
    record.l_type = F_WRLCK;
    fcntl(fd, F_SETLKW, &record);
    return write(ends[1], "", 1) == 1 ? pause() : 1;
  });
  char byte;
  ASSERT_EQ(read(ends[0], &byte, 1), 1);
  std::thread line([] { ZORV_LOG(info, "waited\n"); });
  // The line is seen waiting: its process stands in the kernel's list of those who wait.
  const std::string waiting = "-> POSIX  ADVISORY  WRITE " + std::to_string(getpid());
  EXPECT_TRUE(harness::eventually([&waiting] {
    std::ifstream file("/proc/locks");
    return std::string(std::istreambuf_iterator<char>(file), {}).find(waiting) != std::string::npos;
  }));
  EXPECT_EQ(log_content(), "");
  kill(holder.pid(), SIGKILL);
  line.join();
  EXPECT_TRUE(log_content().ends_with(":waited\n"));
  EXPECT_EQ(log_module._iot_lock_fd_, -1);
}

TEST(Logger, LongLinesStayWholeAmongThreads) {
  std::vector<std::thread> threads;
  for (char letter = 'a'; letter < 'e'; ++letter) {
    threads.emplace_back([letter] {
      for (size_t length = 1900; length < 2000; ++length) {  // around the size of the buffer
        ZORV_LOG(debug, "%s\n", std::string(length, letter).c_str());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::istringstream stream(log_content());
  size_t lines = 0;
  size_t length = 0;
  for (std::string line; std::getline(stream, line); ++lines) {
    const std::string text = line.substr(line.rfind(':') + 1);
    length += text.size();
    EXPECT_EQ(text.find_first_not_of(text[0]), std::string::npos);
  }
  EXPECT_EQ(lines, 4 * 100U);
  EXPECT_EQ(length, 4 * 100 * (1900U + 1999U) / 2);
}

}  // namespace
