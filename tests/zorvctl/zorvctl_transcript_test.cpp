// zorvctl as it is run, with the real daemons: each transcript is what a shell shows, a command
// behind each "$ " and an exit status that is not 0 in brackets.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>

#include "harness/daemon.h"

namespace {

#ifdef __arm__
constexpr bool kIsEmulated = true;
#else
constexpr bool kIsEmulated = false;
#endif

const std::string kFolder = ZORV_SOURCE "/tests/zorvctl/transcripts/";

class Transcript : public testing::TestWithParam<std::string> {
 protected:
  // In the root, with the programs of this build in front; or one of a few words of the test's own.
  std::string answer_to(const std::string& command) {
    if (command.starts_with("sql ")) {
      std::string answer;
      for (const std::string& row : harness::sql(command.substr(4))) {
        answer += row + "\n";
      }
      return answer;
    }
    const std::pair<const char*, std::function<void()>> words[] = {
        {"stop platformd", [this] { platform_.reset(); }},
        {"start platformd", [this] { platform_.emplace(); }},
        {"stop zorvd", [this] { daemon_.reset(); }},
        {"start zorvd", [this] { daemon_.emplace(); }}};
    for (const auto& [word, act] : words) {
      if (command == word) {
        act();
        return "";
      }
    }
    const auto [status, out, err] = harness::run(
        {"/bin/sh", "-c",
         "exec 2>&1; cd $ZORV_ROOT; export SOURCE=" ZORV_SOURCE " PATH=${0%/*}:$PATH; " + command,
         harness::program("zorvctl")});
    return out + (status == 0 ? "" : "[" + std::to_string(status) + "]\n");
  }

  std::optional<harness::Daemon> daemon_{std::in_place};
  std::optional<harness::PlatformDaemon> platform_;
};

TEST_P(Transcript, IsWhatHappens) {
  if (GetParam() == "refused" && (geteuid() != 0 || kIsEmulated)) {
    GTEST_SKIP() << "only root can be somebody else, and the emulator is root's";
  }
  std::ifstream file(kFolder + GetParam() + ".txt");
  std::vector<std::pair<std::string, std::string>> steps;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("$ ")) {
      steps.emplace_back(line.substr(2), "");
    } else if (!line.empty() && !line.starts_with("# ")) {
      steps.back().second += line + "\n";
    }
  }
  EXPECT_FALSE(steps.empty());
  for (const auto& [command, answer] : steps) {
    EXPECT_EQ(answer_to(command), answer) << command;
  }
}

std::vector<std::string> transcripts() {
  std::vector<std::string> names;
  for (const auto& file : std::filesystem::directory_iterator(kFolder)) {
    names.push_back(file.path().stem());
  }
  std::sort(names.begin(), names.end());
  return names;
}

INSTANTIATE_TEST_SUITE_P(, Transcript, testing::ValuesIn(transcripts()),
                         [](const auto& name) { return name.param; });

}  // namespace
