// The options file: what it reads as when it is missing, broken or locked, what a save leaves, and
// who may see it when.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "conf_file_lock.h"
#include "global_options.h"
#include "harness/daemon.h"
#include "harness/fake_service.h"
#include "harness/test_root.h"
#include "json_ref.h"

namespace {

namespace fs = std::filesystem;
using harness::FakeService;
using zorv::GlobalConfig;
using zorv::kOptionsFile;
using Lines = std::vector<std::string>;

constexpr const char* kDefaults = R"({"global": {"version": "1"}, "gw_setting": {"as_gw_en": 0}})";
constexpr const char* kUpdate = "external_dev.update_vpn_gw";
constexpr const char* kNoObject = "ERROR root isn't a object.";

std::string real_path(const char* path) {
  return harness::test_root() + path;
}

std::string dumped(json_t* owned) {
  return text_or_empty(dump_json(JsonRef(owned).get()));
}

// The errors since the last call; calls of the network service are not of interest here.
Lines new_errors() {
  Lines errors = harness::new_log_texts("global_options", "ERROR");
  std::erase_if(errors, [](auto& text) { return text.find("easy_kx_call") != std::string::npos; });
  return errors;
}

class GlobalConfigFile : public testing::Test {
 protected:
  void TearDown() override {
    fs::remove_all(real_path(kOptionsFile));
    fs::remove_all(real_path(nas::kConfLockFolder));
  }

  GlobalConfig config_;
};

TEST_F(GlobalConfigFile, BrokenReadsAsDefaultsAndMissingAsEmpty) {
  const struct {
    const char* content;  // null: no file
    const char* loaded;
    Lines errors;
  } cases[] = {
      {nullptr, "{}", {"ERROR Open /etc/config/vpn_options.conf failed."}},
      {"", kDefaults, {kNoObject}},
      {"[]", kDefaults, {kNoObject}},
      {R"({"global": 1} {"global": 2})", kDefaults, {kNoObject}},
      {R"({"theirs":[1],"global":"x"})", R"({"theirs": [1], "global": "x"})", {}},
  };
  for (const auto& expected : cases) {
    if (expected.content != nullptr) {
      harness::write_file(kOptionsFile, expected.content);
    }
    EXPECT_EQ(dumped(config_.load()), expected.loaded);
    EXPECT_EQ(new_errors(), expected.errors);
  }
  EXPECT_EQ(dumped(config_.load("theirs")), "[1]");
  EXPECT_EQ(dumped(config_.load("absent")), "{}");
  EXPECT_EQ(dumped(config_.load(static_cast<const char*>(nullptr))), "{}");
  JsonValue out("before");
  EXPECT_EQ(config_.load(nullptr, out), -1);
  std::string text;
  out.toString(text);
  EXPECT_EQ(config_.load("theirs", out), 0);
  EXPECT_EQ(config_.load("absent", out), 0);
  out.toString(text);
  EXPECT_EQ(text, R"("before"{"absent":"{}","theirs":"[1]"})");
}

TEST_F(GlobalConfigFile, DirectoryAndRefusedLock) {
  fs::create_directory(real_path(kOptionsFile));
  EXPECT_EQ(dumped(config_.load()), kDefaults);
  config_.save(R"({"gw_setting": {}})");
  EXPECT_TRUE(fs::is_directory(real_path(kOptionsFile)));
  EXPECT_EQ(new_errors(), (Lines{kNoObject, kNoObject}));
  fs::remove(real_path(kOptionsFile));

  harness::write_file(kOptionsFile, kDefaults);
  fs::remove_all(real_path(nas::kConfLockFolder));
  harness::write_file(nas::kConfLockFolder, "not a folder");
  EXPECT_EQ(dumped(config_.load()), "{}");
  EXPECT_EQ(config_.save(R"({"global": {"version": "2"}})"), 0);
  EXPECT_EQ(new_errors(), Lines(2, "ERROR conf_file_read_lock failed."));
  EXPECT_EQ(harness::read_file(kOptionsFile), kDefaults);
}

TEST_F(GlobalConfigFile, SaveReplacesKnownSectionsOrEmptiesTheFile) {
  const struct {
    const char* before;  // null: no file
    const char* patch;
    const char* after;
    bool is_update_asked;
    Lines errors;
  } cases[] = {
      {R"({"gw_setting": {"a": 1, "b": 2}, "theirs": "kept"})",
       R"({"gw_setting": 5, "new": 1})",
       R"({"gw_setting": 5, "theirs": "kept"})",
       true,
       {}},
      {kDefaults, R"({"only new": {}})", kDefaults, true, {}},
      {"garbage",
       R"({"global": {}})",
       R"({"global": {}, "gw_setting": {"as_gw_en": 0}})",
       true,
       {kNoObject}},
      {kDefaults, "not JSON", "", false, {"ERROR Update raw_t to root failed. "}},
      {kDefaults, "[1]", "", false, {"ERROR Update raw_t to root failed. [1]"}},
      {kDefaults, nullptr, "", false, {"ERROR Update raw_t to root failed. "}},
      {nullptr,
       R"({"global": {}})",
       "{}",
       true,
       {"ERROR Open /etc/config/vpn_options.conf failed."}},
  };
  for (const auto& expected : cases) {
    const FakeService service("NetworkService", kUpdate, R"({"error": 0})");
    fs::remove(real_path(kOptionsFile));
    if (expected.before != nullptr) {
      harness::write_file(kOptionsFile, expected.before);
    }
    EXPECT_EQ(config_.save(expected.patch), 0);
    EXPECT_EQ(harness::read_file(kOptionsFile), expected.after);
    EXPECT_EQ(service.calls(),
              expected.is_update_asked ? Lines{std::string(kUpdate) + " "} : Lines{});
    EXPECT_EQ(new_errors(), expected.errors);
  }
}

TEST_F(GlobalConfigFile, FullDiskIsAFailedWrite) {
  const auto answer = [] { return R"({"error": 0})"; };
  const FakeService service("NetworkService", {{"external_dev.list", answer}, {kUpdate, answer}});
  fs::create_symlink("/dev/full", real_path(kOptionsFile));
  EXPECT_EQ(config_.save(R"({"gw_setting": {"as_gw_en": 1}})"), 0);
  EXPECT_EQ(service.calls(), Lines{}) << "neither announced nor applied";
  EXPECT_EQ(new_errors(), (Lines{kNoObject, R"(ERROR Write {"global": {"version": "1"}, )"
                                            R"("gw_setting": {"as_gw_en": 1}} to file failed)"}));
}

// Others must be able to read the file when they are told to apply it, and not before.
TEST_F(GlobalConfigFile, AnnouncesUnderTheLockAndUpdatesAfterIt) {
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
  config_.save(R"({"gw_setting": {"as_gw_en": 1, "gw1": {}}})");
  EXPECT_EQ(harness::read_file("/at_list"), "locked");
  EXPECT_EQ(harness::read_file("/at_update"), "free");
  EXPECT_EQ(new_errors(), Lines{"ERROR update_vpn_gw: kx_call failed"});
}

}  // namespace
