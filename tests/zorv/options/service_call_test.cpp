// Calls of other services: what counts as an answer, and what is read from it.
#include <gtest/gtest.h>

#include "global_options.h"
#include "harness/daemon.h"
#include "harness/fake_service.h"
#include "json_ref.h"

namespace {

using harness::FakeService;
using harness::new_log_texts;
using Lines = std::vector<std::string>;

TEST(ServiceCall, OnlyAnObjectWithErrorZeroIsAnAnswer) {
  const std::string large = R"({"error": 0, "data": ")" + std::string(200000, 'x') + "\"}";
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  const char* const no_object = "ERROR easy_kx_call: root isn't an object.";
  const char* const no_integer = "ERROR easy_kx_call: val isn't an integer.";
  const char* const refused = "ERROR easy_kx_call: NetworkService.ask {\"a\": 1} failed";
  const char* const no_reply = "ERROR easy_kx_call: kx_call NetworkService.ask {\"a\": 1} failed";
  const struct {
    std::optional<std::string> reply;
    std::string answer;
    const char* error;
  } cases[] = {
      {R"( {"data":[1], "error":0} )", R"({"data": [1], "error": 0})", nullptr},
      {std::string("{\"error\":0}\0{", 13), R"({"error": 0})", nullptr},
      {large, large, nullptr},
      {R"({"error": "0"})", "", no_integer},
      {R"({"error": 0.0})", "", no_integer},
      {R"({"data": {}})", "", no_integer},
      {R"({"error": 5, "data": {}})", "", refused},
      {R"({"error": -1})", "", refused},
      {R"([{"error": 0}])", "", no_object},
      {R"({"error": 0)", "", no_object},
      {R"({"error": 0} more)", "", no_object},
      {"{\"error\": 0, \"data\": \"\xFF\"}", "", no_object},
      {deep, "", no_object},
      {"", "", no_object},
      {std::nullopt, "", no_reply},
  };
  for (const auto& expected : cases) {
    const FakeService service("NetworkService", "ask", expected.reply);
    const JsonRef answer(zorv::easy_kx_call("NetworkService", "ask", "{\"a\": 1}"));
    EXPECT_EQ(text_or_empty(dump_json(answer.get())), expected.answer);
    Lines lines{"DEBUG kx_call NetworkService.ask {\"a\": 1}"};
    if (expected.error != nullptr) {
      lines.emplace_back(expected.error);
    }
    EXPECT_EQ(new_log_texts("global_options"), lines) << expected.reply.value_or("").substr(0, 80);
    EXPECT_EQ(service.calls(), Lines{"ask {\"a\": 1}"});
  }
}

TEST(ServiceCall, NobodyThereUnknownMethodsAndNoArguments) {
  EXPECT_EQ(zorv::easy_kx_call("NetworkService", "ask", "{}"), nullptr);
  const FakeService service("NetworkService", "ask", R"({"error": 3})");
  EXPECT_EQ(zorv::easy_kx_call("NetworkService", "Ask", "{}"), nullptr);
  EXPECT_EQ(zorv::easy_kx_call("NetworkService", "ask", nullptr), nullptr);
  EXPECT_EQ(service.calls(), Lines{"ask "});
  EXPECT_EQ(new_log_texts("global_options"),
            (Lines{"DEBUG kx_call NetworkService.ask {}",
                   "ERROR easy_kx_call: kx_call NetworkService.ask {} failed",
                   "DEBUG kx_call NetworkService.Ask {}",
                   "ERROR easy_kx_call: kx_call NetworkService.Ask {} failed",
                   "DEBUG kx_call NetworkService.ask ",
                   "ERROR easy_kx_call: NetworkService.ask  failed"}));
}

TEST(ServiceCall, AProfilesNameComesFromTheNetworkServicesList) {
  const Lines no_object{"ERROR get_profile_name: tun2 isn't an object."};
  const Lines no_string{"ERROR get_profile_name: profile isn't string."};
  const struct {
    const char* reply;
    const char* name;
    Lines errors;
  } cases[] = {
      {R"({"error":0,"data":{"tun2":{"profile":"Gr\u00fcn \"1\""}}})", "Gr\xC3\xBCn \"1\"", {}},
      {R"({"error":0,"data":{"tun2001":{"profile":"x"}}})", "", no_object},
      {R"({"error":0,"data":["tun2"]})", "", no_object},
      {R"({"error":0})", "", no_object},
      {R"({"error":0,"data":{"tun2":{}}})", "", no_string},
      {R"({"error":0,"data":{"tun2":{"profile":7}}})", "", no_string},
      {"[]", "", {"ERROR easy_kx_call: root isn't an object."}},
  };
  for (const auto& expected : cases) {
    const FakeService service("NetworkService", "external_dev.list", expected.reply);
    EXPECT_EQ(zorv::get_profile_name("tun2"), expected.name);
    EXPECT_EQ(service.calls(), Lines{R"(external_dev.list {"key": "tun2"})"});
    EXPECT_EQ(new_log_texts("global_options", "ERROR"), expected.errors);
  }
}

}  // namespace
