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
int policy_status = KX_SUCCESS;
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
  return policy_status;
}

namespace {

void set_policy(const std::string& global) {
  policy_reply = R"({"error": 0, "data": {"global": )" + global + "}}";
}

void fail(const std::string& name, int times = 1) {
  for (int i = 0; i < times; ++i) {
    EXPECT_EQ(store::insert_privilege_user_block(name.c_str()), 0);
  }
}

Texts rows() {
  return harness::sql("SELECT username, limit_count FROM privilege_user_block");
}

// The messages that were sent, each with its user, in any order.
Texts messages(size_t count) {
  Texts texts;
  for (const std::string& line : harness::notifications(count)) {
    const size_t at = line.find("\"message_id\":\"") + 14;
    const size_t user = line.find("ZORV Service\",\"") + 15;
    texts.push_back(line.substr(at, 4) + " " + line.substr(user, line.find('"', user) - user));
  }
  std::sort(texts.begin(), texts.end());
  return texts;
}

class Block : public testing::Test {
 protected:
  void SetUp() override {
    harness::install_notify();
    ASSERT_EQ(store::create_privilege_user_block_db(), 0);
  }
};

TEST_F(Block, LastsFromTheFailureAtTheLimitUntilItsTimeIsOver) {
  constexpr const char* kUsual = R"({"enable": true, "limit": 3, "time": 5})";
  constexpr time_t kLastSecond = 2147483647;  // that 31 bits hold
  enum { kBelow, kBlocked, kLifted };
  struct Case {
    const char* policy;
    int limit;  // as it is read
    int failures;
    time_t elapsed;
    int verdict;
    time_t start = 1795234206;
  };
  Texts expected;
  for (const Case& c : {
           Case{kUsual, 3, 2, 0, kBelow},
           Case{kUsual, 3, 2, 300, kBelow},
           Case{kUsual, 3, 3, 0, kBlocked},
           Case{kUsual, 3, 3, 299, kBlocked},
           Case{kUsual, 3, 3, 300, kLifted},
           Case{kUsual, 3, 3, 301, kLifted},
           Case{kUsual, 3, 4, 299, kBlocked},
           Case{kUsual, 3, 4, 300, kLifted},
           Case{kUsual, 3, 3, -1000, kBlocked},  // the clock went back
           Case{kUsual, 3, 3, 299, kBlocked, kLastSecond},
           Case{kUsual, 3, 3, 300, kLifted, kLastSecond - 100},
           Case{kUsual, 3, 3, 299, kBlocked, 4294967000},
           // Only the low 32 bits of a row's time count.
           Case{kUsual, 3, 3, 0, kLifted, 4294967296},
           Case{R"({"enable": true, "time": 5})", 0, 1, 0, kBlocked},  // no limit: 0
           Case{R"({"enable": true, "limit": "2", "time": 5})", 0, 1, 0,
                kBlocked},  // no integer: 0
           Case{R"({"enable": true, "limit": 2.0, "time": 5})", 0, 1, 0, kBlocked},
           Case{R"({"enable": true, "limit": -1, "time": 1})", -1, 1, 0, kBlocked},
           Case{R"({"enable": true, "limit": 1})", 1, 1, 0, kLifted},  // no time: over at once
           Case{R"({"enable": true, "limit": 1, "time": -3})", 1, 1, 0, kLifted},
           Case{R"({"enable": true, "limit": 1, "time": 0.5})", 1, 1, 29, kBlocked},
           Case{R"({"enable": true, "limit": 1, "time": 0.5})", 1, 1, 30, kLifted},
           Case{R"({"enable": true, "limit": 1, "time": 1e300})", 1, 1, 100000, kBlocked},
       }) {
    SCOPED_TRACE(c.policy + " "s + std::to_string(c.failures) + " " + std::to_string(c.elapsed));
    ASSERT_EQ(harness::sql("DELETE FROM privilege_user_block"), Texts{});
    set_policy(c.policy);
    clock_now = c.start - 1;
    fail("user", c.failures - 1);
    clock_now = c.start;  // each failure starts the time anew
    fail("user");
    const Texts counted{"user|" + std::to_string(c.failures)};
    ASSERT_EQ(rows(), counted);
    EXPECT_EQ(store::check_privilege_user_block("somebody else"), 0);
    clock_now = c.start + c.elapsed;
    EXPECT_EQ(store::check_privilege_user_block("user"), c.verdict == kBlocked ? 1 : 0);
    ASSERT_EQ(rows(), c.verdict == kLifted ? Texts{} : counted);
    if (c.limit > 0 && c.failures >= c.limit) {
      expected.emplace_back("0020 user");
    }
    if (c.verdict == kLifted) {
      expected.emplace_back("0021 user");
    }
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(messages(expected.size()), expected);
}

TEST_F(Block, LiftingNotifiesOnlyAtExactlyTheLimit) {
  set_policy(R"({"enable": true, "limit": 2, "time": 5})");
  fail("below");
  fail("at", 2);
  fail("above", 3);
  fail("below2");
  fail("at2", 2);
  fail("above2", 3);
  for (const char* name : {"nobody", "below", "at", "above"}) {
    EXPECT_EQ(store::delete_privilege_user_block(name), 0);
  }
  EXPECT_EQ(rows(), (Texts{"below2|1", "at2|2", "above2|3"}));
  EXPECT_EQ(store::clean_privilege_user_block(), 0);
  EXPECT_EQ(rows(), Texts{});
  EXPECT_EQ(messages(6),
            (Texts{"0020 above", "0020 above2", "0020 at", "0020 at2", "0021 at", "0021 at2"}));
}

TEST_F(Block, APolicyThatIsOffWipesTheTableAtACheckAndTellsNobody) {
  for (const char* off :
       {R"({"enable": false, "limit": 1})", R"({"limit": 1})", R"({"enable": "true", "limit": 1})",
        R"({"enable": 1, "limit": 1})", "7"}) {
    set_policy(off);
    fail("mallory");
    ASSERT_EQ(rows(), Texts{"mallory|1"}) << off;
    EXPECT_EQ(store::check_privilege_user_block("somebody else"), 0) << off;
    ASSERT_EQ(rows(), Texts{}) << off;
  }
  fail("mallory");
  EXPECT_EQ(store::delete_privilege_user_block("mallory"), 0);
  set_policy(R"({"enable": true, "limit": 1})");
  fail("told");
  EXPECT_EQ(messages(1), Texts{"0020 told"});
}

TEST_F(Block, AnUnreadablePolicyCountsAndBlocksNobody) {
  policy_status = KX_NOT_READY;
  int count = 0;
  for (const char* reply : {"nobody serves", "[1]", R"({"error": 5})", ""}) {
    policy_reply = reply;
    fail("user");
    EXPECT_EQ(store::check_privilege_user_block("user"), -1) << reply;
    ASSERT_EQ(rows(), Texts{"user|" + std::to_string(++count)});
    policy_status = KX_SUCCESS;
  }
  EXPECT_TRUE(
      harness::log_holds("check_privilege_user_block: kx failed. kxh vpncaas.read_json "
                         "path=/etc/config/vpn_block.conf"));
  fail("other");
  EXPECT_EQ(store::delete_privilege_user_block("user"), 0);
  EXPECT_EQ(rows(), Texts{"other|1"});
  EXPECT_EQ(store::clean_privilege_user_block(), 0);
  EXPECT_EQ(rows(), Texts{});
}

TEST_F(Block, NamesOfEveryKindAreCountedAsThemselves) {
  set_policy(R"({"enable": true, "limit": 2, "time": 5})");
  fail("Mallory");
  for (const std::string& name : {""s, "mallory"s, "a%sb%n%%"s, "o'brien"s, "jos\xc3\xa9"s,
                                  "\xff\x01"s, std::string(1024, 'x'), "%llu"s}) {
    fail(name, 2);
    EXPECT_EQ(store::check_privilege_user_block(name.c_str()), 1) << name;
    ASSERT_EQ(rows(), (Texts{"Mallory|1", name + "|2"}));
    EXPECT_EQ(store::delete_privilege_user_block(name.c_str()), 0);
  }
  EXPECT_EQ(store::insert_privilege_user_block(nullptr), 0);
  EXPECT_EQ(store::check_privilege_user_block(nullptr), 0);
  EXPECT_EQ(store::delete_privilege_user_block(nullptr), 0);
  // Rows come back cut to 1024 bytes, so a longer name never meets its own.
  fail(std::string(2000, 'y'), 2);
  EXPECT_EQ(rows().size(), 3U);
  EXPECT_EQ(store::check_privilege_user_block(std::string(2000, 'y').c_str()), 0);
}

}  // namespace
