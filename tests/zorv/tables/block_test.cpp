// Who is blocked: failed logins counted against the policy that platformd reads, through the real
// daemon.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/fake_service.h"
#include "harness/test_root.h"
#include "zorv_api_db.h"

namespace {

using namespace std::string_literals;

constexpr const char* kPolicy = "/etc/config/vpn_block.conf";

void set_policy(const std::string& global) {
  harness::write_file(kPolicy, "{\"global\": " + global + "}");
}

std::vector<std::string> rows() {
  return harness::sql("SELECT username, limit_count FROM privilege_user_block");
}

void age_rows(long long seconds) {
  harness::sql("UPDATE privilege_user_block SET timestamp = timestamp - " +
               std::to_string(seconds));
}

std::vector<std::string> messages(size_t count) {
  std::vector<std::string> texts;
  for (const std::string& line : harness::notifications(count)) {
    const size_t at = line.find("\"message_id\":\"") + 14;
    const size_t user = line.find("ZORV Service\",\"") + 15;
    texts.push_back(line.substr(at, 4) + " " + line.substr(user, line.find('"', user) - user));
  }
  return texts;
}

int check(std::string name) {
  return check_privilege_user_block(name.data());
}

int fail(std::string name) {
  return add_privilege_user_block(name.data());
}

std::string check_on_the_wire(const std::string& name) {
  std::string answer = "no answer";
  harness::bus_call("db_privilege_user_block_check", name, &answer, 5, -1, kZorvdAddress);
  return answer;
}

class Block : public testing::Test {
 protected:
  void SetUp() override {
    harness::install_notify();
    platform_ = std::make_unique<harness::PlatformDaemon>();
    daemon_ = std::make_unique<harness::Daemon>();
  }
  std::unique_ptr<harness::PlatformDaemon> platform_;
  std::unique_ptr<harness::Daemon> daemon_;
};

TEST_F(Block, CountsToTheLimitBlocksAndLiftsWhenTheTimeIsOver) {
  set_policy(R"({"enable": true, "limit": 3, "time": 5})");
  EXPECT_EQ(check("mallory"), 0);
  EXPECT_EQ(fail("mallory"), 0);
  EXPECT_EQ(fail("Mallory"), 0) << "another user";
  EXPECT_EQ(fail("mallory"), 0);
  EXPECT_EQ(check("mallory"), 0);
  daemon_->stop();
  daemon_ = std::make_unique<harness::Daemon>();  // the count survives
  EXPECT_EQ(fail("mallory"), 0);
  EXPECT_EQ(messages(1), (std::vector<std::string>{"0020 mallory"}));
  EXPECT_EQ(check("mallory"), 1);
  EXPECT_EQ(fail("mallory"), 0);
  EXPECT_EQ(rows(), (std::vector<std::string>{"mallory|4", "Mallory|1"}));
  age_rows(250);
  EXPECT_EQ(check("mallory"), 1);
  age_rows(50);
  EXPECT_EQ(check("mallory"), 0);
  EXPECT_EQ(rows(), (std::vector<std::string>{"Mallory|1"}));
  EXPECT_EQ(messages(2), (std::vector<std::string>{"0020 mallory", "0021 mallory"}));
}

TEST_F(Block, LiftingNotifiesOnlyAtExactlyTheLimit) {
  set_policy(R"({"enable": true, "limit": 2, "time": 5})");
  for (const char* name : {"below", "at", "at", "above", "above", "above", "at2", "at2"}) {
    fail(name);
  }
  std::string name = "nobody";
  EXPECT_EQ(delete_privilege_user_block(name.data()), 0);
  name = "above";
  EXPECT_EQ(delete_privilege_user_block(name.data()), 0);
  name = "at";
  EXPECT_EQ(delete_privilege_user_block(name.data()), 0);
  EXPECT_EQ(rows(), (std::vector<std::string>{"below|1", "at2|2"}));
  EXPECT_EQ(clean_privilege_user_block(), 0);
  EXPECT_TRUE(rows().empty());
  // Three reached the limit, and only those at it were announced as lifted.
  std::vector<std::string> seen = messages(5);
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen,
            (std::vector<std::string>{"0020 above", "0020 at", "0020 at2", "0021 at", "0021 at2"}));
}

TEST_F(Block, APolicyThatIsOffWipesTheTableAtACheck) {
  fail("mallory");
  for (const char* off :
       {R"({"enable": false})", R"({"limit": 1})", R"({"enable": "true", "limit": 1})",
        R"({"enable": 1, "limit": 1})", "7"}) {
    fail("mallory");
    ASSERT_EQ(rows().size(), 1U) << off;
    set_policy(off);
    EXPECT_EQ(check("somebody else"), 0) << off;
    EXPECT_TRUE(rows().empty()) << off;
  }
}

TEST_F(Block, LimitsAndTimesOfEveryKind) {
  struct Case {
    const char* policy;
    int failures;
    long long age;
    int result;
  };
  for (const Case& c : {
           Case{R"({"enable": true, "time": 5})", 1, 0, 1},                // no limit: 0
           Case{R"({"enable": true, "limit": "1", "time": 5})", 1, 0, 1},  // no integer: 0
           Case{R"({"enable": true, "limit": 2.0, "time": 5})", 1, 0, 1},
           Case{R"({"enable": true, "limit": 1})", 1, 0, 0},  // no time: over at once
           Case{R"({"enable": true, "limit": 1, "time": -3})", 1, 0, 0},
           Case{R"({"enable": true, "limit": 1, "time": 0.5})", 1, 10, 1},
           Case{R"({"enable": true, "limit": 1, "time": 0.5})", 1, 30, 0},
           Case{R"({"enable": true, "limit": 1, "time": 1e300})", 1, 100000, 1},
           Case{R"({"enable": true, "limit": -1, "time": 1})", 1, 0, 1},
           Case{R"({"enable": true, "limit": 2, "time": 1})", 1, 0, 0},
           Case{R"({"enable": true, "limit": 1, "time": 1})", 1, -1000, 1},  // the clock went back
           // Only the low 32 bits of a row's time count.
           Case{R"({"enable": true, "limit": 1, "time": 5})", 1, -(1LL << 32), 1},
           Case{R"({"enable": true, "limit": 1, "time": 5})", 1, 1000 - (7LL << 32), 0},
       }) {
    harness::sql("DELETE FROM privilege_user_block");
    set_policy(c.policy);
    for (int i = 0; i < c.failures; ++i) {
      fail("user");
    }
    age_rows(c.age);
    EXPECT_EQ(check("user"), c.result) << c.policy << " " << c.age;
  }
}

TEST_F(Block, NamesOfEveryKindAreCountedAsThemselves) {
  set_policy(R"({"enable": true, "limit": 2, "time": 5})");
  for (const std::string& name : {""s, "a%sb%n%%"s, "o'brien"s, "jos\xc3\xa9"s, "\xff\x01"s,
                                  std::string(1024, 'x'), "%llu"s}) {
    EXPECT_EQ(fail(name), 0);
    EXPECT_EQ(fail(name), 0);
    EXPECT_EQ(check(name), 1) << name;
    EXPECT_EQ(harness::sql("SELECT count(*), max(limit_count) FROM privilege_user_block"),
              (std::vector<std::string>{"1|2"}))
        << name;
    std::string lifted = name;
    EXPECT_EQ(delete_privilege_user_block(lifted.data()), 0);
    EXPECT_EQ(check(name), 0) << name;
  }
  // Rows come back cut to 1024 bytes, so a longer name never meets its own.
  fail(std::string(2000, 'y'));
  fail(std::string(2000, 'y'));
  EXPECT_EQ(rows().size(), 2U);
  EXPECT_EQ(check(std::string(2000, 'y')), 0);
}

TEST(BlockPolicy, AnUnreadablePolicyCountsAndBlocksNobody) {
  harness::Daemon daemon;
  const std::optional<std::string> replies[] = {std::nullopt, "[1]", R"({"error": 5})"};
  for (size_t i = 0; i < std::size(replies); ++i) {
    const harness::FakeService service("vpncaas", "read_json", replies[i]);
    EXPECT_EQ(fail("user"), 0);
    EXPECT_EQ(check_on_the_wire("user"), "-1");
    EXPECT_EQ(check("user"), 0);
    EXPECT_EQ(rows(), (std::vector<std::string>{"user|" + std::to_string(i + 1)}));
  }
  EXPECT_TRUE(
      harness::log_holds("check_privilege_user_block: kx failed. kxh vpncaas.read_json "
                         "path=/etc/config/vpn_block.conf"));
  EXPECT_EQ(check_on_the_wire("user"), "-1") << "nobody serves at all";
  std::string name = "user";
  EXPECT_EQ(delete_privilege_user_block(name.data()), 0);
  EXPECT_TRUE(rows().empty());
  // Without a limit one failure is enough.
  const harness::FakeService service(
      "vpncaas", "read_json", R"({"error": 0, "data": {"global": {"enable": true, "time": 1}}})");
  EXPECT_EQ(check_on_the_wire("user"), "0");
  fail("user");
  EXPECT_EQ(check_on_the_wire("user"), "1");
  daemon.stop();
  EXPECT_EQ(check("user"), KX_NOT_READY);
}

}  // namespace
