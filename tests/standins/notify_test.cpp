#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "harness/daemon.h"
#include "harness/process.h"
#include "harness/test_root.h"
#include "json_ref.h"

namespace {

using Words = std::vector<std::string>;

Words command(const Words& behind) {
  Words words{harness::program("notify"),
              "send",
              "-A",
              "A238",
              "-C",
              "C001",
              "-M",
              "0017",
              "-l",
              "warn",
              "-t",
              "3"};
  words.insert(words.end(), behind.begin(), behind.end());
  return words;
}

// The newest line of the file, without its time, which is shown with the offset in local time.
std::string newest_line() {
  const auto lines = harness::lines_of(harness::read_file(harness::kNotifications));
  if (lines.empty()) {
    return "";
  }
  int end = 0;
  int year = 0;
  sscanf(lines.back().c_str(), "{\"time\":\"%4d-%*2d-%*2dT%*2d:%*2d:%*2d%*3d:%*2d\",%n", &year,
         &end);
  EXPECT_GE(year, 2024) << lines.back();
  return "{" + lines.back().substr(static_cast<size_t>(end));
}

#define BAD "\xEF\xBF\xBD"

TEST(Notify, FillsPlaceholdersOnceAndKeepsBytesThatAreNoTextAsJson) {
  const struct {
    Words words;  // template, application's name and values
    std::string arguments, text;
  } cases[] = {
      {{"no placeholder", "app"}, R"("app")", "no placeholder"},
      {{"{1} {0}{2} {3}", "app", "{2}{0}", "{1}"}, R"("app","{2}{0}","{1}")", "{2}{0} app{1} {3}"},
      {{"{10}{1}0 {11}", "a", "1", "2", "3", "4", "5", "6", "7", "8", "9", "ten"},
       R"("a","1","2","3","4","5","6","7","8","9","ten")",
       "ten10 {11}"},
      {{"{ {} {x} {-1} {1 {{1}} {001} {99} {", "a", ""},
       R"("a","")",
       "{ {} {x} {-1} {1 {} {001} {99} {"},
      {{"%s{1}%n", "a", "q\"b\\n\nM\xC3\xBC \xF0\x9F\x94\x92"},
       "\"a\",\"q\\\"b\\\\n\\nM\xC3\xBC \xF0\x9F\x94\x92\"",
       "%sq\\\"b\\\\n\\nM\xC3\xBC \xF0\x9F\x94\x92%n"},
      {{"{1}", "a", "x\x80z\xFF"}, "\"a\",\"x" BAD "z" BAD "\"", "x" BAD "z" BAD},
      {{"{1}", "a", "\xC0\xAF cut \xE2\x82"},
       "\"a\",\"" BAD BAD " cut " BAD BAD "\"",
       BAD BAD " cut " BAD BAD},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(harness::run(command(c.words)).status, 0);
    EXPECT_EQ(newest_line(),
              R"({"category":"C001","message_id":"0017","level":"warn","arguments":[)" +
                  c.arguments + R"(],"text":")" + c.text + R"("})");
  }
}
#undef BAD

TEST(Notify, OtherCommandLinesAreRefused) {
  std::vector<Words> wrong = {{harness::program("notify")}, command({"template"})};
  for (const size_t place : {1, 2, 3, 4, 6, 8, 9, 10, 11}) {
    wrong.push_back(command({"t {0}", "app"}));
    wrong.back()[place] += "x";
  }
  for (const Words& words : wrong) {
    const harness::Outcome outcome = harness::run(words);
    EXPECT_EQ(outcome.status, 2) << testing::PrintToString(words);
    EXPECT_TRUE(outcome.err.starts_with("Usage: notify send")) << outcome.err;
  }
  EXPECT_EQ(newest_line(), "");
  alarm(20);  // a FIFO that nobody reads is no file, and is not waited for
  ASSERT_EQ(mkfifo((harness::test_root() + harness::kNotifications).c_str(), 0600), 0);
  const harness::Outcome outcome = harness::run(command({"t", "app"}));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "notify: /var/log/network/notifications.jsonl: No such device or address\n");
}

TEST(Notify, ManyAtOnceMakeTheFolderAndKeepWholeLinesOfAtMostAMegabyte) {
  std::filesystem::remove_all(harness::test_root() + "/var/log");
  std::vector<std::unique_ptr<harness::Process>> tools;
  for (int i = 0; i < 5; ++i) {
    tools.push_back(std::make_unique<harness::Process>(
        command({"{1}{1}{1}{1}{1}{1}{1}{1}{1}{1}{1}", "app", std::string(100000, 'v')})));
  }
  for (const auto& tool : tools) {
    EXPECT_EQ(tool->wait(), 0);
  }
  const auto lines = harness::lines_of(harness::read_file(harness::kNotifications));
  EXPECT_EQ(lines.size(), tools.size());
  for (const std::string& line : lines) {
    const JsonRef object(json_loadb(line.data(), line.size(), 0, nullptr));
    EXPECT_EQ(json_string_length(json_object_get(object.get(), "text")), 1024UL * 1024);
  }
}

}  // namespace
