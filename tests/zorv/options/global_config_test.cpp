// The options file: what it reads as when it is missing, broken or locked, what a save leaves, and
// who may see it when.
#include "global_config.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "conf_file_lock.h"
#include "global_options.h"
#include "harness/daemon.h"
#include "harness/fake_service.h"
#include "harness/test_root.h"

namespace {

namespace fs = std::filesystem;
using zorv::GlobalConfig;
using zorv::kOptionsFile;
using Lines = std::vector<std::string>;

// The errors since the last call, by function, but for those of calls.
Lines new_errors() {
  Lines errors;
  for (const harness::LogLine& line : harness::log_lines()) {
    if (line.level == "ERROR" && line.function != "easy_kx_call") {
      errors.push_back(line.function + ":" + line.text);
    }
  }
  harness::write_file(harness::kLogFile, "");
  return errors;
}

// Others must be able to read the file when they are told to apply it, and not before.
TEST(GlobalConfigFile, SaveReplacesKnownSectionsOrEmptiesTheFile) {
  const std::string defaults = R"({"global": {"version": "1"}, "gw_setting": {"as_gw_en": 0}})";
  const std::string enabled = R"({"global": {"version": "1"}, "gw_setting": {"as_gw_en": 1}})";
  const char* const patch = R"({"gw_setting": {"as_gw_en": 1}, "new": 1})";
  const std::string unwritten = "save:Write " + enabled + " to file failed";
  const std::string no_file = "load:Open /etc/config/vpn_options.conf failed.";
  const std::string no_object = "load:root isn't a object.";
  const std::string file = harness::test_root() + kOptionsFile;
  using State = zorv::OptionsFile::State;
  using enum zorv::OptionsFile::State;
  using Case = std::tuple<std::string, State, const char*, std::string, Lines, bool>;
  const Case cases[] = {
      {defaults, read, patch, enabled, {}, true},
      {"none", missing, "{}", "{}", {no_file}, true},
      {file, unopened, "{}", "", {no_file}, false},
      {"[]", broken, "{}", defaults, {no_object}, true},
      {defaults, read, "[1]", "", {"save:Update raw_t to root failed. [1]"}, false},
      {"/dev/full", broken, patch, "", {no_object, unwritten}, false},
      {"/etc", unread, "{}", "", {no_object}, false},
  };
  const auto answer = [] {
    const int lock = nas::lock_conf_file(kOptionsFile, nas::ConfLock::read, {});
    harness::write_file("/locks", harness::read_file("/locks") + (lock < 0 ? "held " : "free "));
    conf_file_unlock(lock);
    return R"({"error": 1})";
  };
  const harness::FakeService service(
      "NetworkService", {{"external_dev.list", answer}, {"external_dev.update_vpn_gw", answer}});
  for (const auto& [before, state, patched, after, errors, applied] : cases) {
    SCOPED_TRACE(before);
    fs::remove(file);
    const bool is_link = before.starts_with('/');
    if (is_link) {
      fs::create_symlink(before, file);
    } else if (state != missing) {
      harness::write_file(kOptionsFile, before);
    }
    EXPECT_EQ(zorv::read_options().state, state);
    EXPECT_EQ(GlobalConfig().save(patched), 0);
    EXPECT_EQ(is_link ? "" : harness::read_file(kOptionsFile), after);
    Lines expected = errors;
    if (applied) {
      expected.emplace_back("update_vpn_gw:update_vpn_gw: kx_call failed");
    }
    EXPECT_EQ(new_errors(), expected);
  }
  EXPECT_EQ(harness::read_file("/locks"), "held free free free ");
}

TEST(GlobalConfigFile, IsReadWholeOrInSections) {
  const GlobalConfig config;
  harness::write_file(kOptionsFile, R"({"theirs":[1]})");
  JsonValue out;
  EXPECT_EQ(config.load(nullptr, out), -1);
  EXPECT_EQ(config.load("theirs", out) + config.load("absent", out), 0);
  std::string text;
  out.toString(text);
  EXPECT_EQ(text, R"({"absent":"{}","theirs":"[1]"})");

  char get[] = "get";
  char theirs[] = "theirs";
  char* words[] = {get, get, theirs, get};
  testing::internal::CaptureStdout();
  for (const int count : {2, 3, 4}) {
    EXPECT_EQ(zorv::cmd_global_opt(get, count, words), 0);
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "{\"data\": {\"theirs\": [1]}, \"error\": 0}\n"
            "{\"data\": [1], \"error\": 0}\n{\"error\": -1}\n");

  // Without the lock it is neither read nor written.
  fs::remove_all(harness::test_root() + nas::kConfLockFolder);
  harness::write_file(nas::kConfLockFolder, "not a folder");
  EXPECT_EQ(config.save("{}"), 0);
  EXPECT_EQ(harness::read_file(kOptionsFile), R"({"theirs":[1]})");
  EXPECT_EQ(new_errors(), Lines{"load:conf_file_read_lock failed."});
}

}  // namespace
