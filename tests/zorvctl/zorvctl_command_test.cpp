// What no transcript of zorvctl can show: a daemon that answers anything, and tables of thousands.
#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <thread>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/fake_service.h"
#include "zorv_api_db.h"

namespace {

using harness::Outcome;
using harness::RawSocket;
using harness::sql;
using harness::zorvctl;
using namespace std::string_literals;
using Words = std::vector<std::string>;

Words split(const std::string& words) {
  std::istringstream stream(words);
  return {std::istream_iterator<std::string>(stream), {}};
}

TEST(Answers, EndWithAStatusAndASentenceEach) {
  const struct {
    int status;
    int exit;
    const char* sentence;
  } cases[] = {
      {KX_TIMEOUT, 3, "the daemon did not answer in time\n"},
      {KX_NOT_READY, 3, "the daemon is not running\n"},
      {KX_IS_PAUSED, 3, "the daemon is stopping\n"},
      {KX_IS_REJECT, 1, "or is run by a user whom this one does not trust\n"},
      {KX_IO_FAILURE, 3, "the connection to the daemon broke\n"},
      {KX_IS_BUSY, 3, "the daemon is too busy\n"},
      {KX_IS_INVALID, 1, "the daemon does not know this request\n"},
  };
  for (const char* words : {"uuid new", "block check alice", "session list", "device add --mac=m",
                            "client-log clean --all"}) {
    for (const auto& one : cases) {
      const RawSocket listener = RawSocket::listening(kZorvdAddress);
      std::thread daemon([&] {
        const RawSocket caller = listener.accept();
        caller.receive();
        caller.send(harness::Frame{.kind = 2, .detail = one.status, .method = ""}.bytes());
      });
      const Outcome outcome = zorvctl(split(words));
      const bool is_refused = one.status == KX_IS_REJECT && words == "block check alice"s;
      EXPECT_EQ(outcome.status, is_refused ? 9 : one.exit) << words;
      EXPECT_TRUE(outcome.err.ends_with(one.sentence)) << words << outcome.err;
      RawSocket::connected(kZorvdAddress);  // in case that nobody came
      daemon.join();
    }
  }
}

TEST(Policy, IsNotKnownForAReasonThatIsTold) {
  const std::tuple<std::optional<std::string>, const char*, int, const char*> cases[] = {
      {{}, "check eve", 9, "the policy service vpncaas failed, or does not serve this user\n"},
      {"{}", "check eve", 5, "the policy service vpncaas gave no answer that can be used\n"},
      {R"({"error": 17})", "check eve", 5, "vpncaas cannot read the file: error 17\n"},
      {R"({"error": 0, "data": {"global": {"enable": true, "limit": 5, "time": 1}}})",
       "policy set --limit 6", 1, "is written, but the policy service reads something else\n"},
  };
  const harness::Daemon daemon;
  for (const auto& [reply, words, status, sentence] : cases) {
    const harness::FakeService service("vpncaas", "read_json", reply);
    const Outcome outcome = zorvctl(split("block "s + words));
    EXPECT_EQ(outcome.status, status);
    EXPECT_TRUE(outcome.err.ends_with(sentence)) << outcome.err;
  }
}

TEST(Lists, ShowTheRowsThatAreAskedForInOrder) {
  const harness::Daemon daemon;
  harness::insert_rows("privilege_user_block", 4203, "username, limit_count, timestamp",
                       "'u' || (i % 3), i * 7 % 4207, i");
  const auto expect_list = [](const std::string& words, const std::string& rows) {
    Words ids;
    for (const std::string& line :
         harness::lines_of(zorvctl(split("block list -q -o csv " + words)).out)) {
      ids.push_back(line.substr(0, line.find(',')));
    }
    EXPECT_EQ(ids, sql("SELECT id FROM privilege_user_block " + rows)) << words;
  };
  const char* const window = "-n 0 -S @4000";
  const char* const rows_of_window = "WHERE timestamp >= 4000 ORDER BY id DESC";
  expect_list(window, rows_of_window);
  EXPECT_FALSE(harness::log_holds("OFFSET 2000")) << "the rest of the table is older";
  const std::pair<const char*, const char*> lists[] = {
      {"-n 0 --sort limit_count -r", "ORDER BY limit_count DESC"},
      {"", "ORDER BY id DESC LIMIT 50"},
      {"-n 7 --offset 4200", "ORDER BY id DESC LIMIT 7 OFFSET 4200"},
      {"-n 7 --offset 9 -r -S @0", "ORDER BY id LIMIT 7 OFFSET 9"},
      {"-n 0 username=u2 limit_count=14",
       "WHERE username = 'u2' AND limit_count = 14 ORDER BY id DESC"},
      {"-n 0 -S @4000 --sort limit_count", "WHERE timestamp >= 4000 ORDER BY limit_count"},
      {"-n 9 --offset 1 -S @4000 -U @4051 username=u1",
       "WHERE timestamp BETWEEN 4000 AND 4051 AND username = 'u1' ORDER BY id DESC LIMIT 9 OFFSET "
       "1"},
  };
  for (const auto& [words, rows] : lists) {
    expect_list(words, rows);
  }
  // As if a clock was set back, once or often.
  for (const char* times : {"4100 WHERE id = 3", "limit_count"}) {
    sql(std::string("UPDATE privilege_user_block SET timestamp = ") + times);
    expect_list(window, rows_of_window);
  }
}

}  // namespace
