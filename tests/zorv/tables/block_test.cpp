// Who is blocked: failed logins counted against the policy, with a clock and a policy service that
// are the test's own.
#include <gtest/gtest.h>

#include <ctime>

#include "harness/daemon.h"
#include "kxbus.h"
#include "zorvd_tables.h"

namespace {

using namespace std::string_literals;
using Texts = std::vector<std::string>;

time_t clock_now = 1795234206;
std::string policy_reply;

}  // namespace

// In place of the C library's and the bus's, for everything that this program links.
extern "C" time_t time(time_t* ret_now) noexcept {
  if (ret_now != nullptr) {
    *ret_now = clock_now;
  }
  return clock_now;
}

int kx_call(const char* address, const char* method, kx_io* io, int /*timeout_s*/, int /*fd*/) {
  EXPECT_EQ(address + "."s + method, "vpncaas.read_json");
  EXPECT_STREQ(static_cast<const char*>(kx_io_read(io, nullptr)),
               R"({"path": "/etc/config/vpn_block.conf"})");
  kx_io_realloc(io, 0);
  kx_io_write(io, policy_reply.data(), policy_reply.size());
  return KX_SUCCESS;
}

namespace {

TEST(Block, IsCountedToldAndLiftedByThePolicy) {
  constexpr const char* kOn = R"({"enable": true, "limit": 2, "time": 5})";
  constexpr const char* kOff = R"({"enable": "true", "limit": 1, "time": 5})";
  constexpr const char* kMany = R"({"enable": true, "limit": 4294967298, "time": 5})";
  constexpr const char* kFailed = R"({"enable": true, "limit": 2}}, "error": 0.0, "x": {"y": 1)";
  constexpr const char* kUnreadable = R"({"enable": true, "limit": 2}}} and {"more": {"y": 1)";
  const std::tuple<const char*, std::string, std::string, std::string, Texts, Texts> cases[] = {
      {kOn, "b", "f?wf?w?", "011", {"b|2"}, {"0020 b"}},
      {kOn, "c", "ffwfw?s?", "10", {}, {"0020 c", "0021 c"}},
      {kOn, "o'brien%sb%n%%", "ffd", "", {}, {"0020 o'brien%sb%n%%", "0021 o'brien%sb%n%%"}},
      {kOn, "f", "fffd", "", {}, {"0020 f"}},
      {kOn, "g", "fffxxc", "", {}, {"0020 g", "0020 gx", "0021 gx"}},
      {kMany, "a", "ff?", "0", {"a|2"}, {}},
      {kOff, "h", "xfd?", "0", {}, {}},
      {kUnreadable, "", "fxf?", "-1", {"|2", "x|1"}, {}},
      {kFailed, "l", "fffxd?", "-1", {"lx|1"}, {}},
  };
  harness::install_notify();
  ASSERT_EQ(store::create_privilege_user_block_db(), 0);
  Texts expected;
  for (const auto& [policy, user, steps, expected_verdicts, left, told] : cases) {
    SCOPED_TRACE(user);
    policy_reply = R"({"error": 0, "data": {"global": )" + std::string(policy) + "}}\0{"s;
    harness::sql("DELETE FROM privilege_user_block");
    std::string verdicts;
    for (const char step : steps) {
      if (step == 'f' || step == 'x') {
        const std::string name = user + (step == 'x' ? "x" : "");
        EXPECT_EQ(store::insert_privilege_user_block(name.c_str()), 0);
      } else if (step == 'd') {
        EXPECT_EQ(store::delete_privilege_user_block(user.c_str()), 0);
      } else if (step == 'c') {
        EXPECT_EQ(store::clean_privilege_user_block(), 0);
      } else if (step == '?') {
        verdicts += std::to_string(store::check_privilege_user_block(user.c_str()));
      } else {
        clock_now += step == 'w' ? 299 : 1;
      }
    }
    EXPECT_EQ(verdicts, expected_verdicts);
    EXPECT_EQ(harness::sql("SELECT username, limit_count FROM privilege_user_block"), left);
    expected.insert(expected.end(), told.begin(), told.end());
  }
  for (int i = 100; i < 250; ++i) {  // more than a caller waits for
    harness::sql("INSERT INTO privilege_user_block VALUES (" + std::to_string(i) + ", 'm" +
                 std::to_string(i) + "', " + (i == 100 ? "1" : "2") + ", 0)");
    if (i != 100) {
      expected.push_back("0021 m" + std::to_string(i));
    }
  }
  policy_reply = R"({"error": 0, "data": {"global": )"s + kOn + "}}\0"s;
  EXPECT_EQ(store::clean_privilege_user_block(), 0);
  EXPECT_TRUE(harness::log_holds("check_privilege_user_block: kx failed. kxh vpncaas.read_json"));
  Texts messages;  // each with its user
  for (const std::string& line : harness::notifications(expected.size())) {
    const size_t name = line.find("ZORV Service\",\"") + 15;
    messages.push_back(line.substr(line.find("message_id") + 13, 4) + " " +
                       line.substr(name, line.find('"', name) - name));
  }
  std::sort(messages.begin(), messages.end());  // the tools run side by side
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(messages, expected);
}

}  // namespace
