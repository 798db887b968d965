#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/stat.h>

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

Words command(const std::string& message, const Words& arguments,
              const std::string& level = "info") {
  Words words{harness::program("notify"), "send", "-A", "A238", "-C"};
  words.insert(words.end(), {"C001", "-M", "0017", "-l", level, "-t", "3", message});
  words.insert(words.end(), arguments.begin(), arguments.end());
  return words;
}

class Notify : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::remove_all(harness::test_root() + "/var/log/network");
    std::filesystem::create_directories(harness::test_root() + "/var/log/network");
  }
};

// The objects of the notification file, each of which must be one line.
std::vector<JsonRef> lines() {
  std::vector<JsonRef> objects;
  const std::string text = harness::read_file(harness::kNotifications);
  EXPECT_TRUE(text.empty() || text.back() == '\n');
  for (const std::string& line : harness::lines_of(text)) {
    objects.emplace_back(json_loadb(line.data(), line.size(), JSON_REJECT_DUPLICATES, nullptr));
    EXPECT_TRUE(json_is_object(objects.back().get())) << line;
  }
  return objects;
}

std::string text_of(const JsonRef& line, const char* key) {
  const json_t* value = json_object_get(line.get(), key);
  return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value))
                               : std::string("no text: ") + key;
}

Words arguments_of(const JsonRef& line) {
  Words words;
  const json_t* array = json_object_get(line.get(), "arguments");
  for (size_t i = 0; i < json_array_size(array); ++i) {
    words.emplace_back(json_string_value(json_array_get(array, i)));
  }
  return words;
}

TEST_F(Notify, KeepsWhatItWasTold) {
  const Words arguments = {"ZORV Service", "2026-03-09 10:11:12", "alice"};
  ASSERT_EQ(harness::run(command("[{0}] Date: {1}, Username: {2}.", arguments, "warn")).status, 0);
  const auto kept = lines();
  ASSERT_EQ(kept.size(), 1U);
  EXPECT_EQ(text_of(kept[0], "category"), "C001");
  EXPECT_EQ(text_of(kept[0], "message_id"), "0017");
  EXPECT_EQ(text_of(kept[0], "level"), "warn");
  EXPECT_EQ(text_of(kept[0], "text"), "[ZORV Service] Date: 2026-03-09 10:11:12, Username: alice.");
  EXPECT_EQ(arguments_of(kept[0]), arguments);
  int offset_hours = -1;
  int year = 0;
  EXPECT_EQ(sscanf(text_of(kept[0], "time").c_str(), "%d-%*2d-%*2dT%*2d:%*2d:%*2d%d:%*2d", &year,
                   &offset_hours),
            2);
  EXPECT_GE(year, 2024);
}

#define BAD "\xEF\xBF\xBD"

TEST_F(Notify, FillsPlaceholdersOnceAndBytesThatAreNoTextStayJson) {
  const std::string long_value(100000, 'x');
  std::string repeated;
  for (int i = 0; i < 30; ++i) {
    repeated += "{1}";
  }
  const Words twelve = {"app", "1", "2", "3", "4", "5", "6", "7", "8", "9", "ten", "11", "12"};
  const struct {
    std::string message;
    Words arguments;
    std::string text;
    Words kept = {};  // of the arguments, where they are not kept as they are
  } cases[] = {
      {"no placeholder", {"app"}, "no placeholder"},
      {"{1}{0}{1}", {"app", "v"}, "vappv"},
      {"{1} {2}", {"app", "{2}{0}", "{1}"}, "{2}{0} {1}"},
      {"{10}{1}0 {12}", twelve, "ten10 12"},
      {"{1} {2}", {"app", "only"}, "only {2}"},
      {"{1} {2}", {"app", "", ""}, " "},
      {"{ {} {x} {-1} {1 {{1}} {001} {99} {", {"app", "v"}, "{ {} {x} {-1} {1 {v} {001} {99} {"},
      {repeated, {"app", long_value}, std::string(1024UL * 1024, 'x')},
      {"%s{1}%n", {"app", "%s%n"}, "%s%s%n%n"},
      {"{1}", {"app", "a\"b\\c\nd\te\x01"}, "a\"b\\c\nd\te\x01"},
      {"{1}", {"app", "M\xC3\xBCller \xF0\x9F\x94\x92"}, "M\xC3\xBCller \xF0\x9F\x94\x92"},
      {"{1}", {"app", "\xFF\xFE"}, BAD BAD, {"app", BAD BAD}},              // never in UTF-8
      {"{1}", {"app", "a\x80z"}, "a" BAD "z", {"app", "a" BAD "z"}},        // lone continuation
      {"{1}", {"app", "\xC0\xAF"}, BAD BAD, {"app", BAD BAD}},              // overlong
      {"{1}", {"app", "\xE0\x80\x80"}, BAD BAD BAD, {"app", BAD BAD BAD}},  // overlong
      {"{1}", {"app", "\xED\xA0\x80"}, BAD BAD BAD, {"app", BAD BAD BAD}},  // surrogate
      {"{1}", {"app", "\xF4\x90\x80"}, BAD BAD BAD, {"app", BAD BAD BAD}},  // beyond U+10FFFF
      {"{1}", {"app", "cut \xE2\x82"}, "cut " BAD BAD, {"app", "cut " BAD BAD}},
      {"{1}", {"app", "\xEE\x80\x80\xED\x9F\xBF"}, "\xEE\x80\x80\xED\x9F\xBF"},
  };
  size_t count = 0;
  for (const auto& c : cases) {
    ASSERT_EQ(harness::run(command(c.message, c.arguments)).status, 0) << c.message;
    const auto kept = lines();
    ASSERT_EQ(kept.size(), ++count);
    EXPECT_EQ(text_of(kept.back(), "text"), c.text);
    EXPECT_EQ(arguments_of(kept.back()), c.kept.empty() ? c.arguments : c.kept);
  }
}
#undef BAD

TEST_F(Notify, OtherCommandLinesAreRefused) {
  const Words good = command("t {0}", {"app"});
  std::vector<Words> wrong = {{good[0]},
                              {good[0], "--help"},
                              command("t", {}),
                              command("t", {"app"}, "debug"),
                              command("t", {"app"}, "")};
  // Each fixed word in turn missing, and changed.
  for (const size_t place : {1, 2, 3, 4, 6, 8, 10, 11}) {
    Words words = good;
    words[place] += "x";
    wrong.push_back(words);
    words = good;
    words.erase(words.begin() + static_cast<std::ptrdiff_t>(place));
    wrong.push_back(words);
  }
  for (const Words& words : wrong) {
    const harness::Outcome outcome = harness::run(words);
    EXPECT_EQ(outcome.status, 2) << testing::PrintToString(words);
    EXPECT_EQ(outcome.err.rfind("Usage: notify send", 0), 0U) << outcome.err;
  }
  EXPECT_TRUE(lines().empty());
}

TEST_F(Notify, FileThatCannotBeWrittenIsSaid) {
  const std::string path = harness::test_root() + harness::kNotifications;
  for (const char* kind : {"folder", "fifo"}) {
    ASSERT_EQ(kind == std::string("fifo") ? mkfifo(path.c_str(), 0600) : mkdir(path.c_str(), 0700),
              0);
    const harness::Outcome outcome = harness::run(command("t", {"app"}));
    EXPECT_EQ(outcome.status, 1) << kind;
    EXPECT_NE(outcome.err.find("/var/log/network/notifications.jsonl: "), std::string::npos);
    EXPECT_EQ(outcome.err.find(harness::test_root()), std::string::npos);
    std::filesystem::remove(path);
  }
}

TEST_F(Notify, ManyAtOnceMakeTheFolderAndKeepWholeLines) {
  std::filesystem::remove_all(harness::test_root() + "/var/log");
  const std::string value(10240, 'v');
  std::vector<std::unique_ptr<harness::Process>> tools;
  tools.reserve(20);
  for (int i = 0; i < 20; ++i) {
    tools.push_back(std::make_unique<harness::Process>(command("{1}", {"app", value})));
  }
  for (const auto& tool : tools) {
    EXPECT_EQ(tool->wait(), 0);
  }
  const auto kept = lines();
  EXPECT_EQ(kept.size(), tools.size());
  for (const auto& line : kept) {
    EXPECT_EQ(text_of(line, "text"), value);
  }
}

}  // namespace
