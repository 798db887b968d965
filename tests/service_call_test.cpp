#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "global_options.h"
#include "harness/daemon.h"
#include "harness/fake_service.h"
#include "harness/test_root.h"
#include "json_ref.h"
#include "login_policy.h"

namespace {

using harness::FakeService;

std::string dumped(const json_t* json) {
  return text_or_empty(dump_json(json));
}

// The lines since the last call.
std::vector<std::string> new_log_texts() {
  std::vector<std::string> texts = harness::log_texts("global_options");
  harness::write_file(harness::kLogFile, "");
  return texts;
}

constexpr const char* kCall = "DEBUG kx_call NetworkService.ask {\"a\": 1}";

TEST(ServiceCall, OnlyAnObjectWithErrorZeroIsAnAnswer) {
  const std::string large = R"({"error": 0, "data": ")" + std::string(200000, 'x') + "\"}";
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  const char* const no_object = "ERROR easy_kx_call: root isn't an object.";
  const char* const no_integer = "ERROR easy_kx_call: val isn't an integer.";
  const char* const refused = "ERROR easy_kx_call: NetworkService.ask {\"a\": 1} failed";
  const char* const no_reply = "ERROR easy_kx_call: kx_call NetworkService.ask {\"a\": 1} failed";
  using Reply = std::optional<std::string>;
  const struct {
    Reply reply;
    std::string answer;
    const char* error;
  } cases[] = {
      {Reply(R"({"error": 0})"), R"({"error": 0})", nullptr},
      {Reply(R"( {"data":[1], "error":0} )"), R"({"data": [1], "error": 0})", nullptr},
      {Reply(std::string("{\"error\":0}\0{", 13)), R"({"error": 0})", nullptr},
      {Reply(large), large, nullptr},
      {Reply(R"({"error": "0"})"), "", no_integer},
      {Reply(R"({"error": 0.0})"), "", no_integer},
      {Reply(R"({"error": null})"), "", no_integer},
      {Reply(R"({"data": {}})"), "", no_integer},
      {Reply(R"({"error": 5, "data": {}})"), "", refused},
      {Reply(R"({"error": -1})"), "", refused},
      {Reply(R"([{"error": 0}])"), "", no_object},
      {Reply(R"({"error": 0)"), "", no_object},
      {Reply(R"({"error": 0} more)"), "", no_object},
      {Reply("{\"error\": 0, \"data\": \"\xFF\"}"), "", no_object},
      {Reply(deep), "", no_object},
      {Reply("0"), "", no_object},
      {Reply(""), "", no_object},
      {Reply(), "", no_reply},
  };
  for (const auto& expected : cases) {
    const FakeService service("NetworkService", "ask", expected.reply);
    const JsonRef answer(zorv::easy_kx_call("NetworkService", "ask", "{\"a\": 1}"));
    EXPECT_EQ(dumped(answer.get()), expected.answer);
    std::vector<std::string> lines{kCall};
    if (expected.error != nullptr) {
      lines.emplace_back(expected.error);
    }
    EXPECT_EQ(new_log_texts(), lines) << expected.reply.value_or("(none)").substr(0, 80);
    EXPECT_EQ(service.calls(), std::vector<std::string>{"ask {\"a\": 1}"});
  }
}

TEST(ServiceCall, AbsentArgumentsSendAndShowNothing) {
  const FakeService service("NetworkService", "ask", R"({"error": 3})");
  EXPECT_EQ(zorv::easy_kx_call("NetworkService", "ask", nullptr), nullptr);
  EXPECT_EQ(service.calls(), std::vector<std::string>{"ask "});
  EXPECT_EQ(new_log_texts(),
            (std::vector<std::string>{"DEBUG kx_call NetworkService.ask ",
                                      "ERROR easy_kx_call: NetworkService.ask  failed"}));
}

TEST(ServiceCall, NobodyThereAndUnknownMethodsAreFailedCalls) {
  EXPECT_EQ(zorv::easy_kx_call("NetworkService", "ask", "{}"), nullptr);
  const FakeService service("NetworkService", "ask", R"({"error": 0})");
  EXPECT_EQ(zorv::easy_kx_call("NetworkService", "Ask", "{}"), nullptr);
  EXPECT_EQ(new_log_texts(),
            (std::vector<std::string>{"DEBUG kx_call NetworkService.ask {}",
                                      "ERROR easy_kx_call: kx_call NetworkService.ask {} failed",
                                      "DEBUG kx_call NetworkService.Ask {}",
                                      "ERROR easy_kx_call: kx_call NetworkService.Ask {} failed"}));
}

TEST(ProfileName, ComesFromTheNetworkServicesList) {
  const struct {
    const char* reply;
    const char* ifname;
    const char* name;
    std::vector<std::string> errors;
  } cases[] = {
      {R"({"error":0,"data":{"tun2001":{"profile":"Gr\u00fcn \"1\""}}})",
       "tun2001",
       "Gr\xC3\xBCn \"1\"",
       {}},
      {R"({"error":0,"data":{"tun2001":{"profile":"x"}}})",
       "tun2",
       "",
       {"ERROR get_profile_name: tun2 isn't an object."}},
      {R"({"error":0,"data":["tun2"]})",
       "tun2",
       "",
       {"ERROR get_profile_name: tun2 isn't an object."}},
      {R"({"error":0})", "", "", {"ERROR get_profile_name:  isn't an object."}},
      {R"({"error":0,"data":{"tun2":{}}})",
       "tun2",
       "",
       {"ERROR get_profile_name: profile isn't string."}},
      {R"({"error":0,"data":{"tun2":{"profile":7}}})",
       "tun2",
       "",
       {"ERROR get_profile_name: profile isn't string."}},
      {R"([])", "tun2", "", {"ERROR easy_kx_call: root isn't an object."}},
  };
  for (const auto& expected : cases) {
    const FakeService service("NetworkService", "external_dev.list", expected.reply);
    EXPECT_EQ(zorv::get_profile_name(expected.ifname), expected.name);
    const std::string request = std::string(R"({"key": ")") + expected.ifname + "\"}";
    EXPECT_EQ(service.calls(), std::vector<std::string>{"external_dev.list " + request});
    std::vector<std::string> lines{"DEBUG kx_call NetworkService.external_dev.list " + request};
    lines.insert(lines.end(), expected.errors.begin(), expected.errors.end());
    EXPECT_EQ(new_log_texts(), lines);
  }
}

TEST(LoginPolicy, IsReadAsTheServiceTellsIt) {
  const struct {
    const char* global;
    bool enabled;
    int limit;
    double minutes;
  } cases[] = {
      {R"({"enable": true, "limit": 3, "time": 5})", true, 3, 5},
      {R"({"enable": true, "limit": 3.9, "time": 0.05})", true, 0, 0.05},
      {R"({"enable": true, "limit": "3", "time": "5"})", true, 0, 0},
      {R"({"enable": true, "limit": 4294967299, "time": -1.5})", true, 3, -1.5},
      {R"({"enable": true})", true, 0, 0},
      {R"({"enable": false, "limit": 3, "time": 5})", false, 3, 5},
      {R"({"enable": "true", "limit": 1})", false, 1, 0},
      {R"({"enable": 1})", false, 0, 0},
      {R"({})", false, 0, 0},
      {R"([true])", false, 0, 0},
  };
  for (const auto& expected : cases) {
    const FakeService service(
        "vpncaas", "read_json",
        std::string(R"({"error": 0, "data": {"global": )") + expected.global + "}}");
    zorv::LoginPolicy policy{true, 99, 99};
    ASSERT_TRUE(zorv::read_login_policy(policy));
    EXPECT_EQ(policy.enabled, expected.enabled) << expected.global;
    EXPECT_EQ(policy.limit, expected.limit) << expected.global;
    EXPECT_EQ(policy.minutes, expected.minutes) << expected.global;
    EXPECT_EQ(service.calls(),
              std::vector<std::string>{R"(read_json {"path": "/etc/config/vpn_block.conf"})"});
  }
}

TEST(LoginPolicy, AnswersWithoutADocumentMeanOffAndFailuresNothing) {
  zorv::LoginPolicy policy{true, 7, 7};
  {
    const FakeService service("vpncaas", "read_json", R"({"error": 0})");
    EXPECT_TRUE(zorv::read_login_policy(policy));
    EXPECT_FALSE(policy.enabled);
  }
  policy = {true, 7, 7};
  for (const char* reply : {"garbage", "[]", R"({"error":"0"})", R"({"error":5})", ""}) {
    const FakeService service("vpncaas", "read_json", reply);
    EXPECT_FALSE(zorv::read_login_policy(policy)) << reply;
  }
  EXPECT_FALSE(zorv::read_login_policy(policy)) << "nobody serves";
  EXPECT_TRUE(policy.enabled && policy.limit == 7 && policy.minutes == 7);
}

TEST(LoginPolicy, BlockTimeIsCutToWholeSecondsAndSaturates) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const std::pair<double, uint64_t> cases[] = {
      {0, 0},
      {5, 300},
      {0.05, 3},
      {0.0499, 2},
      {0.001, 0},
      {-1, 0},
      {-kInfinity, 0},
      {std::nan(""), 0},
      {1e300, ~0ULL},
      {kInfinity, ~0ULL},
      {307445734561825860.0, ~0ULL},
      {307445734561825792.0, 18446744073709547520ULL},
  };
  for (const auto& [minutes, seconds] : cases) {
    EXPECT_EQ(zorv::block_seconds(minutes), seconds) << minutes;
  }
}

}  // namespace
