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
using harness::FakeService;
using zorv::GlobalConfig;
using zorv::kOptionsFile;
using Lines = std::vector<std::string>;

const std::string kDefaults = R"({"global": {"version": "1"}, "gw_setting": {"as_gw_en": 0}})";
constexpr const char* kUpdate = "external_dev.update_vpn_gw";
constexpr const char* kNoObject = "load:root isn't a object.";
constexpr const char* kNoFile = "load:Open /etc/config/vpn_options.conf failed.";

std::string real_path(const char* path) {
  return harness::test_root() + path;
}

std::string dumped(json_t* owned) {
  return text_or_empty(dump_json(JsonRef(owned).get()));
}

// The errors since the last call, by function; calls of the bus are not of interest here.
Lines new_errors() {
  Lines errors;
  for (const harness::LogLine& line : harness::log_lines()) {
    if (line.level == "ERROR" && line.function != "easy_kx_call") {
      errors.push_back(line.function + ":" + line.text);
    }
  }
  fs::remove(real_path(harness::kLogFile));
  return errors;
}

TEST(GlobalConfigFile, SaveReplacesKnownSectionsOrEmptiesTheFile) {
  const std::string unmerged = "save:Update raw_t to root failed. ";
  const std::string unwritten =
      R"(save:Write {"global": {"version": "1"}, "gw_setting": {"as_gw_en": 1}} to file failed)";
  const std::string merged = R"({"gw_setting": 5, "global": [1]})";
  const char* const patch = R"({"gw_setting": 5, "new": 1})";
  const struct {
    std::string before;  // "none": there is no file
    const char* patch;
    std::string after;  // of a file that was written
    Lines errors;
  } cases[] = {
      {R"({"gw_setting": {"a": 1}, "global": [1]})", patch, merged, {}},
      {"none", patch, "{}", {kNoFile}},
      {"", "{}", kDefaults, {kNoObject}},
      {"[]", "{}", kDefaults, {kNoObject}},
      {R"({"global": 1} {"global": 2})", "{}", kDefaults, {kNoObject}},
      {kDefaults, "not JSON", "", {unmerged}},
      {kDefaults, "[1]", "", {unmerged + "[1]"}},
      {kDefaults, nullptr, "", {unmerged}},
      {"/dev/full", R"({"gw_setting": {"as_gw_en": 1}})", "", {kNoObject, unwritten}},
      {"/etc", "{}", "", {kNoObject}},
  };
  for (const auto& one : cases) {
    const auto answer = [] { return R"({"error": 0})"; };
    const FakeService service("NetworkService", {{"external_dev.list", answer}, {kUpdate, answer}});
    fs::remove(real_path(kOptionsFile));
    const bool is_link = one.before.starts_with('/');
    if (is_link) {
      fs::create_symlink(one.before, real_path(kOptionsFile));
    } else if (one.before != "none") {
      harness::write_file(kOptionsFile, one.before);
    }
    EXPECT_EQ(GlobalConfig().save(one.patch), 0);
    EXPECT_EQ(is_link ? "" : harness::read_file(kOptionsFile), one.after);
    EXPECT_EQ(service.calls().size(), one.after.empty() ? 0U : 1U) << "told to apply what stands";
    EXPECT_EQ(new_errors(), one.errors);
  }
}

TEST(GlobalConfigFile, IsReadWholeOrInSections) {
  const GlobalConfig config;
  harness::write_file(kOptionsFile, R"({"theirs":[1]})");
  EXPECT_EQ(dumped(config.load("theirs")), "[1]");
  EXPECT_EQ(dumped(config.load(static_cast<const char*>(nullptr))), "{}");
  JsonValue out("before");
  EXPECT_EQ(config.load(nullptr, out), -1);
  std::string text;
  out.toString(text);
  EXPECT_EQ(config.load("theirs", out), 0);
  EXPECT_EQ(config.load("absent", out), 0);
  out.toString(text);
  EXPECT_EQ(text, R"("before"{"absent":"{}","theirs":"[1]"})");

  char get[] = "get";
  char theirs[] = "theirs";
  char* words[] = {get, get, theirs, get};
  testing::internal::CaptureStdout();
  for (const int count : {0, 1, 2, 3, 4}) {
    EXPECT_EQ(zorv::cmd_global_opt(get, count, words), 0);
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "{\"error\": -1}\n{\"error\": -1}\n{\"data\": {\"theirs\": [1]}, \"error\": 0}\n"
            "{\"data\": [1], \"error\": 0}\n{\"error\": -1}\n");

  // Without the lock it is neither read nor written.
  fs::remove_all(real_path(nas::kConfLockFolder));
  harness::write_file(nas::kConfLockFolder, "not a folder");
  EXPECT_EQ(dumped(config.load()), "{}");
  EXPECT_EQ(config.save("{}"), 0);
  EXPECT_EQ(harness::read_file(kOptionsFile), R"({"theirs":[1]})");
  EXPECT_EQ(new_errors(), Lines(2, "load:conf_file_read_lock failed."));
}

// Others must be able to read the file when they are told to apply it, and not before.
TEST(GlobalConfigFile, AnnouncesUnderTheLockAndUpdatesAfterIt) {
  const auto try_to_read = [](const char* answer) {
    return [answer]() -> std::optional<std::string> {
      const nas::ConfFileLock lock(
          nas::lock_conf_file(kOptionsFile, nas::ConfLock::read, std::chrono::milliseconds(0)));
      harness::write_file(answer, lock.held() ? "free" : "locked");
      return R"({"error": 1})";
    };
  };
  FakeService service("NetworkService", {{"external_dev.list", try_to_read("/at_list")},
                                         {kUpdate, try_to_read("/at_update")}});
  harness::write_file(kOptionsFile, kDefaults);
  GlobalConfig().save(R"({"gw_setting": {"as_gw_en": 1, "gw1": {}}})");
  EXPECT_EQ(harness::read_file("/at_list"), "locked");
  EXPECT_EQ(harness::read_file("/at_update"), "free");
  EXPECT_EQ(new_errors(), Lines{"update_vpn_gw:update_vpn_gw: kx_call failed"});
}

}  // namespace
