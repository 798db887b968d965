// The options file, the patches that are saved into it, the login policy, and what the platform's
// services answer meanwhile.
//
// Input, in parts separated by the byte 0x1e: the file's content, a patch, a key, and what the
// services answer, in the order they are asked; the last part is the answer to all further calls.
#include <jansson.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "global_options.h"
#include "json_ref.h"
#include "login_policy.h"
#include "stand_ins.h"

namespace {

using fuzz::require;

constexpr char kSeparator = '\x1e';
constexpr size_t kMostCalls = 16;

void expect_calls(const std::vector<std::string>& parts) {
  fuzz::replies.clear();
  for (size_t i = 3; i < parts.size(); ++i) {
    fuzz::replies.push_back(parts[i]);
  }
  while (parts.size() > 3 && fuzz::replies.size() < kMostCalls) {
    fuzz::replies.push_back(parts.back());
  }
}

void read_sections(const zorv::GlobalConfig& config, const std::string& key) {
  const JsonRef section(config.load(key.c_str()));
  require(section != nullptr, "a section is never null");
  JsonValue out;
  require(config.load(key.c_str(), out) == 0, "a named section is read");
  JsonValue gateway;
  config.get_vpn_gw(gateway);
  std::string text;
  gateway.toString(text);
  text.clear();
  out.toString(text);
  out.print(stdout);
  require(text.size() > 1 && text.front() == '{' && text.back() == '}', "an object's text");
}

void read_policy() {
  zorv::LoginPolicy policy{true, 4711, -1.0};
  if (!zorv::read_login_policy(policy)) {
    require(policy.enabled && policy.limit == 4711 && policy.minutes == -1.0,
            "a policy that was not read is untouched");
  }
  const uint64_t seconds = zorv::block_seconds(policy.minutes);
  require(policy.minutes > 0 || seconds == 0, "no time from nothing");
}

// What a patch that is an object has in common with the file replaces it; nothing else changes.
void save(const zorv::GlobalConfig& config, const std::string& patch_text) {
  const JsonRef before(config.load());
  const JsonRef patch(json_loads(patch_text.c_str(), 0, nullptr));
  require(config.save(patch_text.c_str()) == 0, "saving always succeeds");
  const JsonRef after(config.load());
  require(json_is_object(after.get()), "the content is an object");
  if (!json_is_object(patch.get())) {
    const JsonRef defaults(config.get_tmpl());
    require(json_equal(after.get(), defaults.get()) != 0, "a broken patch leaves the defaults");
    return;
  }
  json_object_update_existing(before.get(), patch.get());
  require(json_equal(after.get(), before.get()) != 0, "what was saved is what is read");
}

void disable_both(const zorv::GlobalConfig& config) {
  const JsonRef section(config.load("gw_setting"));
  for (const char* name : {"gw1", "gw2"}) {
    const json_t* const gateway = json_object_get(section.get(), name);
    const auto type = static_cast<zorv::TYPE>(json_integer_value(json_object_get(gateway, "type")));
    const auto index = static_cast<int>(json_integer_value(json_object_get(gateway, "index")));
    require(config.disable_gateway(type, index) == 0, "disabling always succeeds");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::prepare();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> parts =
      fuzz::split({reinterpret_cast<const char*>(data), size}, kSeparator);
  parts.resize(std::max<size_t>(parts.size(), 3));
  fuzz::write_rooted(zorv::kOptionsFile, parts[0]);
  expect_calls(parts);
  const zorv::GlobalConfig config;
  read_sections(config, parts[2]);
  read_policy();
  zorv::get_profile_name(parts[2].c_str());
  save(config, parts[1]);
  disable_both(config);
  std::string get = "get";
  char* words[] = {get.data(), get.data(), parts[2].data()};
  require(zorv::cmd_global_opt(get.data(), 3, words) == 0, "the command always succeeds");
  return 0;
}
