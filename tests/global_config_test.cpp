#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "conf_file_lock.h"
#include "global_options.h"
#include "harness/daemon.h"
#include "harness/fake_service.h"
#include "harness/test_root.h"
#include "json_ref.h"
#include "logger.h"

namespace {

namespace fs = std::filesystem;
using harness::FakeService;
using zorv::GlobalConfig;
using zorv::kOptionsFile;

constexpr const char* kDefaults = R"({"global": {"version": "1"}, "gw_setting": {"as_gw_en": 0}})";
constexpr const char* kUpdate = "external_dev.update_vpn_gw";

std::string real_path(const char* path) {
  return harness::test_root() + path;
}

std::string dumped(json_t* owned) {
  return text_or_empty(dump_json(JsonRef(owned).get()));
}

// The errors since the last call; calls of the network service are not of interest here.
std::vector<std::string> new_errors() {
  std::vector<std::string> errors;
  for (const std::string& text : harness::log_texts("global_options")) {
    if (text.rfind("ERROR ", 0) == 0 && text.find("easy_kx_call") == std::string::npos) {
      errors.push_back(text.substr(6));
    }
  }
  harness::write_file(harness::kLogFile, "");
  return errors;
}

using Lines = std::vector<std::string>;

class GlobalConfigFile : public testing::Test {
 protected:
  void TearDown() override {
    fs::remove_all(real_path(kOptionsFile));
    fs::remove_all(real_path(platform::kConfLockFolder));
  }

  // From here on nobody gets a lock.
  static void refuse_locks() {
    fs::remove_all(real_path(platform::kConfLockFolder));
    harness::write_file(platform::kConfLockFolder, "not a folder");
  }

  GlobalConfig config_;
};

TEST_F(GlobalConfigFile, BrokenReadsAsDefaultsAndMissingAsEmpty) {
  const struct {
    const char* content;  // null: no file
    const char* loaded;
    Lines errors;
  } cases[] = {
      {nullptr, "{}", {"Open /etc/config/vpn_options.conf failed."}},
      {"", kDefaults, {"root isn't a object."}},
      {"[]", kDefaults, {"root isn't a object."}},
      {R"({"global": )", kDefaults, {"root isn't a object."}},
      {R"({"global": 1} {"global": 2})", kDefaults, {"root isn't a object."}},
      {"{}", "{}", {}},
      {R"({"theirs":[1],"global":"x"})", R"({"theirs": [1], "global": "x"})", {}},
  };
  for (const auto& expected : cases) {
    if (expected.content != nullptr) {
      harness::write_file(kOptionsFile, expected.content);
    }
    EXPECT_EQ(dumped(config_.load()), expected.loaded);
    EXPECT_EQ(new_errors(), expected.errors);
  }
}

TEST_F(GlobalConfigFile, DirectoryUnreadableFileAndRefusedLock) {
  fs::create_directory(real_path(kOptionsFile));
  EXPECT_EQ(dumped(config_.load()), kDefaults);
  config_.save(R"({"gw_setting": {}})");
  EXPECT_TRUE(fs::is_directory(real_path(kOptionsFile)));
  EXPECT_EQ(new_errors(), (Lines{"root isn't a object.", "root isn't a object."}));
  fs::remove(real_path(kOptionsFile));

  harness::write_file(kOptionsFile, kDefaults);
  if (geteuid() != 0) {  // root reads everything
    chmod(real_path(kOptionsFile).c_str(), 0);
    EXPECT_EQ(dumped(config_.load()), "{}");
    EXPECT_EQ(new_errors(), Lines{"Open /etc/config/vpn_options.conf failed."});
    chmod(real_path(kOptionsFile).c_str(), 0600);
  }

  refuse_locks();
  EXPECT_EQ(dumped(config_.load()), "{}");
  EXPECT_EQ(config_.save(R"({"global": {"version": "2"}})"), 0);
  EXPECT_EQ(new_errors(), (Lines{"conf_file_read_lock failed.", "conf_file_read_lock failed."}));
  EXPECT_EQ(harness::read_file(kOptionsFile), kDefaults);
}

TEST_F(GlobalConfigFile, SectionsByKey) {
  harness::write_file(kOptionsFile, R"({"global": {"version": "7"}, "list": [1, 2]})");
  EXPECT_EQ(dumped(config_.load("global")), R"({"version": "7"})");
  EXPECT_EQ(dumped(config_.load("list")), "[1, 2]");
  EXPECT_EQ(dumped(config_.load("absent")), "{}");
  EXPECT_EQ(dumped(config_.load(static_cast<const char*>(nullptr))), "{}");

  JsonValue out("before");
  EXPECT_EQ(config_.load(nullptr, out), -1);
  std::string text;
  out.toString(text);
  EXPECT_EQ(text, "\"before\"");
  EXPECT_EQ(config_.load("list", out), 0);
  EXPECT_EQ(config_.load("absent", out), 0);
  text.clear();
  out.toString(text);
  EXPECT_EQ(text, R"({"absent":"{}","list":"[1,2]"})");
}

TEST_F(GlobalConfigFile, SaveReplacesKnownSectionsOrEmptiesTheFile) {
  const struct {
    const char* before;  // null: no file
    const char* patch;
    const char* after;
    bool is_update_asked;
    Lines errors;
  } cases[] = {
      {kDefaults,
       R"({"gw_setting": {"n": 1}})",
       R"({"global": {"version": "1"}, "gw_setting": {"n": 1}})",
       true,
       {}},
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
       {"root isn't a object."}},
      {kDefaults, "not JSON", "", false, {"Update raw_t to root failed. "}},
      {kDefaults, "[1]", "", false, {"Update raw_t to root failed. [1]"}},
      {kDefaults, nullptr, "", false, {"Update raw_t to root failed. "}},
      {nullptr, R"({"global": {}})", "{}", true, {"Open /etc/config/vpn_options.conf failed."}},
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
  EXPECT_EQ(new_errors(),
            (Lines{"root isn't a object.", R"(Write {"global": {"version": "1"}, )"
                                           R"("gw_setting": {"as_gw_en": 1}} to file failed)"}));
}

// Others must be able to read the file when they are told to apply it, and not before.
TEST_F(GlobalConfigFile, AnnouncesUnderTheLockAndUpdatesAfterIt) {
  const auto try_to_read = [](const char* answer) {
    return [answer]() -> std::optional<std::string> {
      const platform::ConfFileLock lock(platform::lock_conf_file(
          kOptionsFile, platform::ConfLock::read, std::chrono::milliseconds(0)));
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
  EXPECT_EQ(new_errors(), Lines{"update_vpn_gw: kx_call failed"});
}

TEST_F(GlobalConfigFile, KilledHolderLetsOthersGoOn) {
  harness::write_file(kOptionsFile, kDefaults);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t holder = fork();
  if (holder == 0) {
    const bool is_locked = conf_file_write_lock(kOptionsFile) >= 0;
    const ssize_t told = write(ends[1], is_locked ? "+" : "-", 1);
    pause();
    _exit(static_cast<int>(told));
  }
  char told = 0;
  ASSERT_EQ(read(ends[0], &told, 1), 1);
  EXPECT_EQ(told, '+');
  kill(holder, SIGKILL);
  waitpid(holder, nullptr, 0);
  EXPECT_EQ(dumped(config_.load("global")), R"({"version": "1"})");
  close(ends[0]);
  close(ends[1]);
}

// One generation of the section, long enough to be written in several pieces.
std::string generation(int number) {
  const std::string text = std::to_string(number);
  return R"({"gw_setting": {"first": )" + text + R"(, "fill": ")" + std::string(20000, 'x') +
         R"(", "last": )" + text + "}}";
}

bool is_whole(const json_t* root) {
  const json_t* const section = json_object_get(root, "gw_setting");
  const json_t* const first = json_object_get(section, "first");
  return json_is_integer(first) && json_equal(first, json_object_get(section, "last")) != 0 &&
         json_string_length(json_object_get(section, "fill")) == 20000;
}

template <class Work>
pid_t in_child(Work work) {
  const pid_t child = fork();
  if (child == 0) {
    __cur_type__ = -1;  // no log
    _exit(work());
  }
  return child;
}

TEST_F(GlobalConfigFile, ReadersNeverSeeAHalfWrittenFile) {
  harness::write_file(kOptionsFile, kDefaults);
  config_.save(generation(0).c_str());
  std::vector<pid_t> children;
  children.reserve(22);
  for (int saver = 0; saver < 2; ++saver) {
    children.push_back(in_child([this, saver] {
      for (int i = 0; i < 100; ++i) {
        config_.save(generation(1000 * saver + i).c_str());
      }
      return 0;
    }));
  }
  for (int loader = 0; loader < 20; ++loader) {
    children.push_back(in_child([this] {
      for (int i = 0; i < 50; ++i) {
        if (!is_whole(JsonRef(config_.load()).get())) {
          return 1;
        }
      }
      return 0;
    }));
  }
  for (const pid_t child : children) {
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
}

std::string output_of(std::vector<std::string> words) {
  std::vector<char*> argv;
  argv.reserve(words.size());
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  testing::internal::CaptureStdout();
  EXPECT_EQ(zorv::cmd_global_opt(nullptr, static_cast<int>(argv.size()), argv.data()), 0);
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

TEST_F(GlobalConfigFile, CommandPrintsOneLine) {
  harness::write_file(kOptionsFile, kDefaults);
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"option", "get"}, std::string(R"({"data": )") + kDefaults + ", \"error\": 0}\n"},
      {{"option", "get", "global"}, "{\"data\": {\"version\": \"1\"}, \"error\": 0}\n"},
      {{"option", "get", "nothing"}, "{\"data\": {}, \"error\": 0}\n"},
      {{"option", "set"}, "{\"error\": -1}\n"},
      {{"option", "set", "global"}, "{\"error\": -1}\n"},
      {{"option", "get", "a", "b"}, "{\"error\": -1}\n"},
      {{"get"}, "{\"error\": -1}\n"},
      {{}, "{\"error\": -1}\n"},
  };
  for (const auto& [words, line] : cases) {
    EXPECT_EQ(output_of(words), line);
  }
  EXPECT_TRUE(harness::log_holds("argc=3, argvs=option get nothing "));
  EXPECT_TRUE(harness::log_holds("argc=0, argvs="));
  fs::remove(real_path(kOptionsFile));
  EXPECT_EQ(output_of({"option", "get"}), "{\"data\": {}, \"error\": 0}\n");
}

}  // namespace
