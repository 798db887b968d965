// The OpenVPN hook, from the environment of a real server's scripts to the daemon's database; and
// environments that nobody means well.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <thread>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "openvpn_environment.h"
#include "zorv_api_db.h"

namespace {

using harness::Daemon;
using harness::Outcome;
using harness::sql;
using harness::zorvctl;
using Lines = std::vector<std::string>;

constexpr const char* kConnect = "client-connect";
constexpr const char* kDisconnect = "client-disconnect";
constexpr const char* kVerify = "user-pass-verify";
// A client that is in proves who it is once more, by a password or by a token.
constexpr const char* kRenegotiation = "renegotiation";
constexpr const char* kToken = "token";

// As OpenVPN runs it: with the variables that it gave a script of that name, more of them, and no
// others. The words are a shell's.
Outcome hook(const std::string& script, const std::string& words = "",
             const std::string& variables = "") {
  const std::string recorded = ZORV_SOURCE "/tests/data/openvpn-" + script + ".env";
  return harness::run({"/bin/sh", "-c",
                       "IFS='\n'; exec env -i PATH=/bin ZORV_ROOT=" + harness::test_root() +
                           " $(cat " + recorded + ") " + variables + " " +
                           harness::program("zorvctl") + " hook openvpn " + words});
}

TEST(Hook, WithoutTheDaemonRefusesOnlyWhereAPasswordIsWrongOrUnchecked) {
  const struct {
    const char* script;
    const char* words;
    int status;
    const char* complaint;
    const char* variables = "";
  } cases[] = {
      {kConnect, "/tmp/file", 0, "alice is not recorded: the daemon is not running"},
      {kDisconnect, "", 0, "alice is not recorded: the daemon is not running"},
      {kVerify, "/tmp/file", 0, "alice may be blocked"},
      {kVerify, "", 0, "alice may be blocked", "password=secret"},
      {kVerify, "-- false", 1, "alice may be blocked"},
      {kVerify, "/bin/true /tmp/file", 1, "'/bin/true'"},
      {kVerify, "--help", 1, "'--help'"},
      {kVerify, "--", 1, "behind --"},
      {kVerify, "--on-daemon-away refuse --deadline 1 -- true", 1, "nobody can say"},
      {kVerify, "--on-daemon-away refuse /tmp/file", 1, "nobody can say"},
      {kRenegotiation, "--on-daemon-away refuse -- true", 0, ""},
      {kVerify, "--on-daemon-away never -- true", 1, "'--on-daemon-away'"},
      {kVerify, "--deadline 0 -- true", 1, "'--deadline'"},
      {kVerify, "--deadline 61 -- true", 1, "'--deadline'"},
      {kConnect, "0 CN=alice", 0, "script of this type", "script_type=tls-verify"},
      {kConnect, "", 1, "script_type is not set", "script_type="},
  };
  for (const auto& one : cases) {
    const Outcome outcome = hook(one.script, one.words, one.variables);
    EXPECT_EQ(outcome.status, one.status) << one.words;
    EXPECT_NE(outcome.err.find(one.complaint), std::string::npos) << one.complaint << outcome.err;
  }
}

TEST(Hook, TakesATimeOutForNoAnswerAndAsksNoMore) {
  // 1 is the status of a time-out, and what the client function says of a blocked user.
  const harness::RawSocket listener = harness::RawSocket::listening(kZorvdAddress);
  std::thread daemon([&] {
    const harness::RawSocket caller = listener.accept();
    caller.receive();
    caller.send(harness::Frame{.kind = 2, .detail = KX_TIMEOUT, .method = ""}.bytes());
  });
  const Outcome outcome = hook(kVerify, "-- false");
  daemon.join();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(
      outcome.err,
      "zorvctl: hook: alice may be blocked, the login goes on unchecked and uncounted: the "
      "daemon did not answer in time\n"
      "zorvctl: hook: the failed login of alice is not recorded: the daemon did not answer in "
      "time; nor can it wait in /var/spool/zorv: No such file or directory\n");
}

TEST(Hook, RecordsLoginsLogoutsAndWhomTheCheckerRefusesUntilTheyAreBlocked) {
  const Daemon daemon;
  const harness::PlatformDaemon platform;
  Lines records;
  const auto expect_run = [&](const char* script, const std::string& words, int status,
                              const std::string& record, const char* variables = "") {
    SCOPED_TRACE(words);
    EXPECT_EQ(hook(script, words, variables).status, status);
    if (!record.empty()) {
      records.push_back(record);
    }
    EXPECT_EQ(sql("SELECT username, vpn_type, uptime, iif(action = 1, 'now', time), source_ip, "
                  "vpn_ip, tx_total, rx_total, outgoing, action FROM conn_server_log"),
              records);
  };
  const std::string failure = "alice|4|0|now|10.99.0.2||0|0|tun0|1";
  expect_run(kConnect, "/cc.tmp", 0, "alice|4|0|1795234206|10.99.0.2|10.8.0.2|0|0|tun0|2");
  expect_run(kDisconnect, "", 0, "alice|4|11|1795234217|10.99.0.2|10.8.0.2|2622|2621|tun0|3");
  // The checker's words arrive as they are, and it sees OpenVPN's variables.
  expect_run(kVerify, "-- sh -c 'test \"$0$1$username\" = [a]--alice' [a] --", 0, "");
  expect_run(kVerify, "-- false", 1, failure);
  expect_run(kRenegotiation, "-- true", 0, "", "username=alice");
  const char* const failures = "SELECT username, limit_count FROM privilege_user_block";
  EXPECT_EQ(sql(failures), Lines{"alice|1"});
  expect_run(kVerify, "-- true", 0, "");
  EXPECT_EQ(sql(failures), Lines{});

  expect_run(kVerify, "-- false", 1, failure);
  expect_run(kVerify, "-- false", 1, failure, "session_state=AuthenticatedEmptyUser");
  expect_run(kVerify, "-- sh -c 'exit 3'", 1, failure);
  // Nobody guessed anything, or nothing is known of the password.
  expect_run(kToken, "-- false", 0, "", "username=alice");
  expect_run(kVerify, "-- false", 1, "", "session_state=ExpiredEmptyUser");
  expect_run(kVerify, "-- sh -c 'exit 2'", 2, "");
  expect_run(kVerify, "-- sh -c 'kill -9 $$'", 1, "");
  expect_run(kVerify, "-- /no/such/checker /tmp/file", 1, "");
  EXPECT_EQ(sql(failures), Lines{"alice|3"}) << "a token is no login that forgets them";

  harness::write_file("/etc/config/vpn_block.conf",
                      R"({"global": {"enable": true, "limit": 3, "time": 4.5}})");
  harness::write_file("/reason", "");
  expect_run(kVerify, "-- true", 1, failure,
             ("auth_failed_reason_file=" + harness::test_root() + "/reason").c_str());
  EXPECT_EQ(harness::read_file("/reason"), "blocked, try again in 5 minutes");
  expect_run(kVerify, "-- true", 1, failure,
             "session_state=Authenticated trusted_ip=10.99.0.2 ifconfig_pool_remote_ip=10.8.0.2");
  expect_run(kRenegotiation, "-- true", 0, "", "username=alice");
  expect_run(kRenegotiation, "-- false", 1, "alice|4|0|now|fd77::12||0|0|tuns1|1",
             "username=alice");
  EXPECT_EQ(hook(kVerify).err,
            "zorvctl: hook: alice is refused: blocked after too many failed logins\n");
  records.push_back(failure);
  // With "via-file" the name may stand in the file alone.
  harness::write_file("/credentials", "alice\nsecret\n");
  const std::string credentials = harness::test_root() + "/credentials";
  expect_run(kVerify, credentials, 1, failure, "username= common_name=");
  expect_run(kVerify, credentials, 0, "", "username=bob");
}

TEST(Hook, RecordsAClientsConnections) {
  const Daemon daemon;
  const auto rows = [] {
    return sql(
        "SELECT username, vpn_type, uptime > 0, time - uptime, vpn_ip, action FROM "
        "conn_client_log");
  };
  // Neither a connection of another process nor the end of one is this one's beginning.
  zorvctl({"client-log", "add", "--action=login-ok", "--vpn-ip=10.81.0.2,fd81::1000", "--time=@1"});
  for (const size_t row : {1, 2}) {
    EXPECT_EQ(hook("down", "", "username=alice").status, 0);
    EXPECT_EQ(rows().at(row), "alice|1024|1|1795292401|10.81.0.2,fd81::1000|3");
  }
  EXPECT_EQ(hook("route-up").status, 0);
  const std::string begun = sql("SELECT time FROM conn_client_log WHERE action = 2").at(1);
  EXPECT_EQ(hook("down").status, 0);
  EXPECT_EQ(rows().at(3), "|1024|0|" + begun + "|10.81.0.2,fd81::1000|2");
  EXPECT_EQ(rows().at(4).substr(8), begun + "|10.81.0.2,fd81::1000|3");
}

TEST(OpenVpn, AnyEnvironmentBecomesARecord) {
  struct Case {
    const char* variables[5];  // ended by a null pointer, as all are
    const char* records;       // of the login up to its time; of the logout from the uptime on
  };
  const Case cases[] = {
      {{"username=a\nb\xc2\x9b", "IV_PLAT=w\x7fn", "trusted_ip=\t"}, "a_b_|w_n|_||77 0|77|0|0"},
      {{"username=a=b", "username=c", "no equals sign", "=e"}, "a=b||||77 0|77|0|0"},
      {{"username=", "common_name=cert", "trusted_ip6=::1"}, "cert||::1||77 0|77|0|0"},
      {{"ifconfig_pool_remote_ip6=::2", "ifconfig_pool_remote_ip=10.0.0.2"},
       "|||10.0.0.2,::2|77 0|77|0|0"},
      {{"IV_VER=2.6", "IV_PLAT_VER=12", "IV_PLAT=win", "IV_HWADDR=a:b"},
       "|win 12, OpenVPN 2.6, a:b|||77 0|77|0|0"},
      {{"time_duration=11", "bytes_sent=-1", "bytes_received=12x"}, "||||77 11|77|0|0"},
      {{"time_duration=9223372036854775807", "time_unix=1"}, "||||1 9223372036854775807|77|0|0"},
      {{"bytes_sent=9223372036854775808"}, "||||77 0|77|9223372036854775807|0"},
      {{"time_duration=1", "time_unix=18446744073709551616"}, "||||9223372036854775807 1|77|0|0"},
  };
  for (const auto& one : cases) {
    const auto environment = zorvctl::environment_of(one.variables);
    const auto in = zorvctl::login_record(environment, 77);
    const auto out = zorvctl::logout_record(environment, 77);
    EXPECT_EQ(fmt::format("{}|{}|{}|{}|{} {}|{}|{}|{}", in.username, in.device_info, in.source_ip,
                          in.vpn_ip, in.time, out.uptime, out.time, out.tx_total, out.rx_total),
              one.records);
  }
}

TEST(OpenVpn, TextsAreCutBetweenTwoCharacters) {
  const std::string euros = fmt::format("{:\u20ac<1000}", "");
  const auto record = zorvctl::login_record({{"username", euros}, {"IV_PLAT", euros}}, 0);
  EXPECT_EQ(record.username, euros.substr(0, 1023));
  EXPECT_EQ(record.device_info, euros.substr(0, 1023));
}

}  // namespace
