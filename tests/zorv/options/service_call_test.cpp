// Calls of other services, by the one that asks for a profile's name: what counts as an answer, and
// what is read from it.
#include <gtest/gtest.h>

#include "global_options.h"
#include "harness/daemon.h"
#include "harness/fake_service.h"

namespace {

using Lines = std::vector<std::string>;

TEST(ServiceCall, OnlyAnObjectWithErrorZeroIsAnAnswer) {
  const std::string call = "NetworkService.external_dev.list {\"key\": \"tun2\"}";
  const std::string no_root = "ERROR easy_kx_call: root isn't an object.";
  const std::string no_integer = "ERROR easy_kx_call: val isn't an integer.";
  const std::string device = R"("data":{"tun2":{"profile":"Gr\u00fcn \"1\""}}})";
  const std::pair<std::optional<std::string>, std::string> cases[] = {
      {R"( {"error":0,)" + device + " ", ""},
      {R"({"error":0,)" + device + std::string(1, '\0') + "{", ""},
      {R"({"error":0.0,)" + device, no_integer},
      {"{" + device, no_integer},
      {R"({"error":-1,)" + device, "ERROR easy_kx_call: " + call + " failed"},
      {R"({"error":0,)" + device + "more", no_root},
      {"", no_root},
      {std::nullopt, "ERROR easy_kx_call: kx_call " + call + " failed"},
      {R"({"error":0,"data":{"tun2001":{}}})", "ERROR get_profile_name: tun2 isn't an object."},
      {R"({"error":0,"data":{"tun2":{"profile":7}}})",
       "ERROR get_profile_name: profile isn't string."},
  };
  for (const auto& [reply, error] : cases) {
    const harness::FakeService service("NetworkService", "external_dev.list", reply);
    EXPECT_EQ(zorv::get_profile_name("tun2"), error.empty() ? "Gr\xC3\xBCn \"1\"" : "");
    Lines lines{"DEBUG kx_call " + call, error};
    std::erase(lines, "");
    EXPECT_EQ(harness::new_log_texts("global_options"), lines);
    EXPECT_EQ(service.calls(), Lines{R"(external_dev.list {"key": "tun2"})"});
  }
}

}  // namespace
