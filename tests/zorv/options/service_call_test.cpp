// Calls of other services, by the one that asks for a profile's name: what counts as an answer, and
// what is read from it.
#include <gtest/gtest.h>

#include "global_options.h"
#include "harness/daemon.h"
#include "harness/fake_service.h"

namespace {

using harness::FakeService;
using Lines = std::vector<std::string>;

TEST(ServiceCall, OnlyAnObjectWithErrorZeroIsAnAnswer) {
  const std::string call = "NetworkService.external_dev.list {\"key\": \"tun2\"}";
  const std::string failed = "easy_kx_call: kx_call " + call + " failed";
  const std::string refused = "easy_kx_call: " + call + " failed";
  const std::string no_root = "easy_kx_call: root isn't an object.";
  const std::string no_integer = "easy_kx_call: val isn't an integer.";
  const std::string no_device = "get_profile_name: tun2 isn't an object.";
  const std::string no_text = "get_profile_name: profile isn't string.";
  const struct {
    std::optional<std::string> reply;
    const char* name;
    std::string error;
  } cases[] = {
      {R"( {"data":{"tun2":{"profile":"Gr\u00fcn \"1\""}}, "error":0} )", "Gr\xC3\xBCn \"1\"", ""},
      {R"({"error":0,"data":{"tun2":{"profile":"x"}}})" + std::string(1, '\0') + "{", "x", ""},
      {R"({"error":"0","data":{"tun2":{"profile":"x"}}})", "", no_integer},
      {R"({"error":0.0,"data":{"tun2":{"profile":"x"}}})", "", no_integer},
      {R"({"data":{"tun2":{"profile":"x"}}})", "", no_integer},
      {R"({"error":-1,"data":{"tun2":{"profile":"x"}}})", "", refused},
      {R"([{"error":0}])", "", no_root},
      {R"({"error":0} more)", "", no_root},
      {"", "", no_root},
      {std::nullopt, "", failed},
      {R"({"error":0,"data":{"tun2001":{"profile":"x"}}})", "", no_device},
      {R"({"error":0,"data":{"tun2":{"profile":7}}})", "", no_text},
  };
  for (const auto& one : cases) {
    const FakeService service("NetworkService", "external_dev.list", one.reply);
    EXPECT_EQ(zorv::get_profile_name("tun2"), one.name);
    Lines lines{"DEBUG kx_call " + call};
    if (!one.error.empty()) {
      lines.push_back("ERROR " + one.error);
    }
    EXPECT_EQ(harness::new_log_texts("global_options"), lines) << one.reply.value_or("none");
    EXPECT_EQ(service.calls(), Lines{R"(external_dev.list {"key": "tun2"})"});
  }
  EXPECT_EQ(zorv::easy_kx_call("NetworkService", "ask", nullptr), nullptr) << "nobody is there";
  EXPECT_TRUE(harness::log_holds("easy_kx_call: kx_call NetworkService.ask  failed"));
}

}  // namespace
