#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "harness/daemon.h"

namespace {

using Words = std::vector<std::string>;

Words command(const Words& behind) {
  Words words = harness::lines_of("\nsend\n-A\nA238\n-C\nC001\n-M\n0017\n-l\nwarn\n-t\n3");
  words[0] = harness::program("notify");
  words.insert(words.end(), behind.begin(), behind.end());
  return words;
}

TEST(Notify, AppendsALineWithPlaceholdersFilledOnceAndBytesThatAreNoTextMarked) {
  std::filesystem::remove_all(harness::test_root() + "/var/log");
  const std::string much(120'000, 'v');
  const struct {
    Words words;  // template, application's name and values
    std::string arguments, text;
  } kRows[] = {
      {{"{1} {0}{2} {3}", "app", "{2}{0}", "{1}"}, R"("app","{2}{0}","{1}")", "{2}{0} app{1} {3}"},
      {{"{01}{ {} {x} {-1} {1 {{1}} {001} {", "a", ""}, R"("a","")", "{ {} {x} {-1} {1 {} {001} {"},
      {{"%s{1}%n", "a", "q\"b\\n\nM\xC3\xBC"}, R"("a","q\"b\\n\nMü")", R"(%sq\"b\\n\nMü%n)"},
      {{"{1}", "a", "x\x80 \xE2\x82"}, "\"a\",\"x\uFFFD \uFFFD\uFFFD\"", "x\uFFFD \uFFFD\uFFFD"},
      {{"{1}{1}{1}{1}{1}{1}{1}{1}{1}", "a", much},
       "\"a\",\"" + much + "\"",
       std::string(1 << 20, 'v')},
  };
  size_t count = 0;
  for (const auto& row : kRows) {
    ASSERT_EQ(harness::run(command(row.words)).status, 0);
    const auto lines = harness::lines_of(harness::read_file(harness::kNotifications));
    ASSERT_EQ(lines.size(), ++count);
    EXPECT_TRUE(lines.back().starts_with("{\"time\":\"20"));
    EXPECT_EQ(lines.back().substr(std::string("{'time':'2026-11-22T01:02:03+01:00',").size()),
              R"("category":"C001","message_id":"0017","level":"warn","arguments":[)" +
                  row.arguments + R"(],"text":")" + row.text + R"("})");
  }
}

TEST(Notify, OtherCommandLinesAreRefused) {
  std::vector<Words> wrong = {{harness::program("notify")}, command({"template"})};
  for (const size_t place : {1, 2, 3, 4, 6, 8, 9, 10, 11}) {
    wrong.push_back(command({"t {0}", "app"}));
    wrong.back()[place] += "x";
  }
  for (const Words& words : wrong) {
    EXPECT_EQ(harness::run(words).status, 2) << testing::PrintToString(words);
  }
  EXPECT_EQ(harness::read_file(harness::kNotifications), "");
  alarm(20);  // a FIFO that nobody reads is no file, and is not waited for
  ASSERT_EQ(mkfifo((harness::test_root() + harness::kNotifications).c_str(), 0600), 0);
  EXPECT_EQ(harness::run(command({"t", "app"})).status, 1);
}

}  // namespace
