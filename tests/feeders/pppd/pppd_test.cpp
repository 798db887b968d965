// zorv.so under a stand-in for pppd, with the real daemon: what happens on a link, and what is kept
// of it. The tests of servers run it under pppd itself.
#include <gtest/gtest.h>
#include <poll.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/test_root.h"
#include "pppd_host.h"

namespace {

using namespace harness;
using namespace pppd_host;
using Lines = std::vector<std::string>;

// As "ACTION|TYPE|USER|CALLER|ADDRESS|INTERFACE|UPTIME|TX|RX".
Lines rows() {
  return sql(
      "SELECT action, vpn_type, username, source_ip, vpn_ip, outgoing, uptime, tx_total, rx_total "
      "FROM conn_server_log ORDER BY id");
}
std::string failed_row(const std::string& user) {
  return "1|1|" + user + "|192.0.2.9|||0|0|0";
}
// As "USER|COUNT".
Lines failures() {
  return sql("SELECT username, limit_count FROM privilege_user_block ORDER BY id");
}
void count_failures(const std::string& user, int count) {
  sql("INSERT INTO privilege_user_block (username, limit_count, timestamp) VALUES ('" + user +
      "', " + std::to_string(count) + ", strftime('%s', 'now'))");
}

class Pppd : public ::testing::Test {
 protected:
  void SetUp() override {
    write_file("/etc/config/vpn_block.conf",
               R"({"global": {"enable": true, "limit": 3, "time": 4.5}})");
    platform.emplace();
    daemon.emplace();
    ASSERT_TRUE(load(ZORV_PPP_PLUGIN, {"zorv-deadline 1"}))
        << testing::PrintToString(pppd_host::log());
  }
  std::optional<PlatformDaemon> platform;
  std::optional<Daemon> daemon;
  const Caller stranger{.remote_number = "192.0.2.9"};
};

// What real servers told of a session: variables of its ip-down script.
std::map<std::string, std::string> sample(const std::string& name) {
  std::ifstream file(ZORV_SOURCE "/tests/data/pppd/" + name + "-ip-down.env");
  std::map<std::string, std::string> values;
  for (std::string line; std::getline(file, line);) {
    values[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
  }
  return values;
}

TEST_F(Pppd, KeepsSessionsAsServersTellThem) {
  const struct {
    const char* server;
    Caller caller;
    const char* type;
    const char* source;
  } cases[] = {
      {"pptpd", {.ipparam = "10.9.0.2"}, "1", "10.9.0.2"},
      {"pptpd", {.remote_number = "2001:db8::7", .ipparam = "10.9.0.2"}, "1", "2001:db8::7"},
      {"pptpd", {.remote_number = "030 1234", .ipparam = "10.9.0.2"}, "1", "10.9.0.2"},
      {"pptpd", {.remote_number = "030 1234", .ipparam = "office"}, "1", "030 1234"},
      {"pptpd", {.ipparam = "office"}, "1", ""},
      {"xl2tpd", {.starter = "xl2tpd"}, "2", ""},
      {"xl2tpd",
       {.starter = "xl2tpd", .ipparam = "10.9.0.3", .kernel_l2tp = "10.9.0.2"},
       "2",
       "10.9.0.2"},
      {"pppd", {.starter = "openl2tpd", .kernel_l2tp = "10.9.0.2"}, "2", "10.9.0.2"},
  };
  // Named by the common options, too.
  ASSERT_TRUE(load(ZORV_PPP_PLUGIN));
  Lines wanted;
  for (const auto& each : cases) {
    auto told = sample(each.server);
    ASSERT_EQ(told["PEERNAME"], "lea");
    begin(each.caller);
    ASSERT_TRUE(give_name(Method::mschap2, told["PEERNAME"]));
    up(told["IFNAME"], told["IPLOCAL"], told["IPREMOTE"], {48, 52});
    const unsigned long long sent = std::stoull(told["BYTES_SENT"]);
    const unsigned long long received = (1ULL << 32) + std::stoull(told["BYTES_RCVD"]);
    down(static_cast<unsigned>(std::stoul(told["CONNECT_TIME"])), {received + 48, sent + 52});
    const std::string session = std::string("|") + each.type + "|lea|" + each.source + "|" +
                                told["IPREMOTE"] + "|" + told["IFNAME"] + "|";
    wanted.push_back("2" + session + "0|0|0");
    wanted.push_back("3" + session + told["CONNECT_TIME"] + "|" + std::to_string(sent) + "|" +
                     std::to_string(received));
  }
  EXPECT_EQ(rows(), wanted);

  begin(stranger);
  prove_by_eap("eve");
  up("ppp1", "10.0.0.1", "10.0.0.2", {1000, 1000});
  std::filesystem::remove_all(test_root() + "/sys");
  down(3, {700, 80});
  down(3, {700, 80});
  EXPECT_EQ(rows().size(), wanted.size() + 2);
  EXPECT_EQ(rows().back(), "3|1|eve|192.0.2.9|10.0.0.2|ppp1|3|80|700") << "counters of pppd's own";
}

struct Login {
  Method method;
  const char* name;
  const char* password;
  int failures_before;
  bool is_let_in;
  int failures_after;
};

// Goes through the logins and compares what is kept of them all.
void try_logins(const std::vector<Login>& logins, const Caller& caller) {
  Lines wanted_rows;
  Lines wanted_failures;
  for (const Login& login : logins) {
    if (login.failures_before != 0) {
      count_failures(login.name, login.failures_before);
    }
    begin(caller);
    EXPECT_EQ(give_name(login.method, login.name, login.password), login.is_let_in) << login.name;
    if (!login.is_let_in) {
      wanted_rows.push_back(failed_row(login.name));
    }
    if (login.failures_after != 0) {
      wanted_failures.push_back(std::string(login.name) + "|" +
                                std::to_string(login.failures_after));
    }
  }
  EXPECT_EQ(rows(), wanted_rows);
  EXPECT_EQ(failures(), wanted_failures);
}

TEST_F(Pppd, LooksAtPasswordsAsPppdDoes) {
  try_logins({{Method::chap_md5, "amy", "right", 0, true, 0},
              {Method::chap_md5, "ben", "wrong", 0, false, 1},
              {Method::mschap, "nobody", "right", 0, false, 1},
              {Method::mschap2, "cal", "wrong", 1, false, 2},
              {Method::mschap2, "dan", "right", 2, true, 0},
              {Method::mschap2, "eve", "right", 3, false, 3},
              {Method::pap, "fay", "right", 2, true, 0},
              {Method::pap, "gil", "wrong", 2, false, 3},
              {Method::pap, "hal", "right", 4, false, 4},
              {Method::mschap2, "", "wrong", 0, false, 0}},
             stranger);
}

TEST_F(Pppd, AsksAnotherPluginWhoIsNotBlocked) {
  load_other_plugin();
  other_verdict = 1;
  try_logins(
      {{Method::mschap2, "amy", "wrong", 2, true, 0}, {Method::pap, "ben", "wrong", 0, true, 0}},
      stranger);
  EXPECT_EQ(other_calls, 2);
  try_logins(
      {{Method::mschap2, "cal", "right", 3, false, 3}, {Method::pap, "dan", "right", 3, false, 3}},
      stranger);
  EXPECT_EQ(other_calls, 2) << "the blocked are refused before their password is looked at";
  other_verdict = 0;
  begin(stranger);
  EXPECT_FALSE(give_name(Method::mschap2, "eve"));
  begin(stranger);
  EXPECT_FALSE(give_name(Method::pap, "fay"));
  other_verdict = -1;
  begin(stranger);
  EXPECT_TRUE(give_name(Method::pap, "gil")) << "left to pppd";
  EXPECT_EQ(failures(), (Lines{"cal|3", "dan|3", "eve|1", "fay|1"}));
}

TEST_F(Pppd, CountsWhomPppdGivesUp) {
  begin(stranger);
  lose_answer();
  after_right_password = After::hung_up;
  begin(stranger);
  EXPECT_FALSE(give_name(Method::mschap2, "amy"));
  begin(stranger);
  lose_answer();
  after_right_password = After::number_refused;
  try_logins({{Method::mschap2, "ben", "right", 1, false, 2}}, stranger);
}

TEST_F(Pppd, TellsTheBlockedHowLong) {
  count_failures("eve", 3);
  const struct {
    Method method;
    const char* text;
  } cases[] = {{Method::chap_md5, "Blocked, try again in 5 minutes"},
               {Method::pap, "Blocked, try again in 5 minutes"},
               {Method::mschap2, "E=691 R=0 C=0AFF00 V=0 M=Blocked, try again in 5 minutes"}};
  for (const auto& each : cases) {
    begin(stranger);
    EXPECT_FALSE(give_name(each.method, "eve"));
    EXPECT_EQ(answer(), each.text);
    EXPECT_EQ(pppd_host::log(),
              Lines{"zorv: \"eve\" is refused: blocked after too many failed logins"});
  }
  // Nor is it a way in to ask the server for its own proof first.
  begin(stranger);
  prove_ourselves("server");
  EXPECT_FALSE(give_name(Method::mschap2, "eve"));
}

TEST_F(Pppd, JudgesRechallengesApart) {
  begin(stranger);
  ASSERT_TRUE(give_name(Method::mschap2, "amy"));
  up("ppp0", "10.0.0.1", "10.0.0.2", {0, 0});
  count_failures("amy", 3);
  EXPECT_TRUE(give_name(Method::mschap2, "amy")) << "a block ends no session";
  EXPECT_TRUE(give_name(Method::mschap2, "ben")) << "a session keeps its user";
  lose_answer();
  EXPECT_EQ(failures(), Lines{"amy|3"}) << "silence is no wrong password";
  EXPECT_FALSE(give_name(Method::mschap2, "amy", "wrong"));
  down(5, {10, 20});
  EXPECT_EQ(rows(), (Lines{"2|1|amy|192.0.2.9|10.0.0.2|ppp0|0|0|0", failed_row("amy"),
                           "3|1|amy|192.0.2.9|10.0.0.2|ppp0|5|20|10"}));
  EXPECT_EQ(failures(), Lines{"amy|4"});

  begin(stranger);
  ASSERT_TRUE(give_name(Method::mschap2, "ben"));
  EXPECT_FALSE(give_name(Method::mschap2, "amy")) << "a session is no way round another's block";
}

TEST_F(Pppd, KnowsOneNameHoweverStrange) {
  const std::string longest(256, 'x');
  const struct {
    std::string given;
    std::string kept;
  } names[] = {{"o'neil\"; --", "o'neil\"; --"},
               {"%s%n%llu%q", "%s%n%llu%q"},
               {"a\x1b[2Jb\n\x7f", "a^[[2Jb^J^?"},
               {"zo\xc3\xab", "zoM-CM-+"},
               {longest, longest}};
  Lines wanted;
  for (const auto& name : names) {
    for (int i = 0; i < 4; ++i) {
      begin(stranger);
      EXPECT_FALSE(give_name(i % 2 == 0 ? Method::mschap2 : Method::pap, name.given,
                             i < 3 ? "wrong" : "right"));
      wanted.push_back(failed_row(name.kept));
    }
    EXPECT_EQ(failures(), Lines{name.kept + "|3"});
    sql("UPDATE privilege_user_block SET limit_count = 2");
    begin(stranger);
    EXPECT_TRUE(give_name(Method::pap, name.given));
    EXPECT_EQ(failures(), Lines{});
  }
  EXPECT_EQ(rows(), wanted);
}

TEST_F(Pppd, KeepsTheSideThatDials) {
  begin({.starter = "xl2tpd"});
  prove_ourselves("nas");
  up("ppp0", "10.0.0.2", "10.0.0.1", {5, 6});
  down(7, {15, 26});
  begin({});  // nobody proves anything
  up("ppp0", "10.0.0.2", "10.0.0.1", {0, 0});
  down(7, {1, 1});
  begin({});
  EXPECT_EQ(rows(), Lines{});
  prove_ourselves("nas");
  ASSERT_TRUE(give_name(Method::mschap2, "amy"));
  up("ppp0", "10.0.0.2", "10.0.0.1", {0, 0});
  EXPECT_EQ(rows(), Lines{"2|1|amy||10.0.0.1|ppp0|0|0|0"}) << "who asks for a name is a server";
  EXPECT_EQ(sql("SELECT action, vpn_type, username, vpn_ip, uptime, tx_total, rx_total "
                "FROM conn_client_log ORDER BY id"),
            (Lines{"2|512|nas|10.0.0.2|0|0|0", "3|512|nas|10.0.0.2|7|20|10"}));
}

// How many callers wait at a service that takes none.
int waiting_callers(const RawSocket& service) {
  int count = 0;
  for (pollfd ready{service.get(), POLLIN, 0}; poll(&ready, 1, 0) == 1; ++count) {
    service.accept();
  }
  return count;
}

TEST_F(Pppd, RefusesNobodyForADaemonThatIsAwayOrMute) {
  count_failures("amy", 3);
  daemon.reset();
  begin(stranger);
  EXPECT_TRUE(give_name(Method::mschap2, "amy"));
  EXPECT_EQ(pppd_host::log(),
            Lines{"zorv: the login of \"amy\" goes on without asking whether it is "
                  "blocked: the daemon does not run"});
  {
    const RawSocket mute = RawSocket::listening("@/var/run/zorvd.sock");
    begin(stranger);
    EXPECT_TRUE(give_name(Method::mschap2, "amy"));
    up("ppp0", "10.0.0.1", "10.0.0.2", {0, 0});
    EXPECT_EQ(waiting_callers(mute), 1) << "a login waits once";
    EXPECT_EQ(
        pppd_host::log(),
        (Lines{"zorv: the login of \"amy\" goes on without asking whether it is blocked: the "
               "daemon did not answer in time",
               "zorv: the login of \"amy\" is not recorded: the daemon did not answer in time"}));
    EXPECT_FALSE(give_name(Method::mschap2, "amy", "wrong"));
    down(5, {10, 20});
    EXPECT_EQ(waiting_callers(mute), 1) << "its end waits once more";
    EXPECT_EQ(pppd_host::log().size(), 3U) << "neither counted nor recorded, and no logout";
  }
  begin(stranger);
  EXPECT_TRUE(give_name(Method::mschap2, "amy"));
  up("ppp0", "10.0.0.1", "10.0.0.2", {0, 0});
  daemon.emplace();
  down(5, {10, 20});
  EXPECT_EQ(rows(), Lines{"3|1|amy|192.0.2.9|10.0.0.2|ppp0|5|20|10"});
  EXPECT_EQ(failures(), Lines{"amy|3"}) << "who was not asked about is not forgiven";
}

TEST_F(Pppd, LetsPppdAskForWhatCanBeJudged) {
  for (const bool pap : {false, true}) {
    allow_proofs(true, !pap, pap);
    begin(stranger);
    EXPECT_FALSE(allows_eap()) << pap;
  }
  EXPECT_EQ(pppd_host::log(), Lines{});
  allow_proofs(true, false, false);
  begin(stranger);
  EXPECT_TRUE(allows_eap());
  EXPECT_EQ(pppd_host::log(),
            Lines{"zorv: with EAP only, no block holds and no failed login is seen"});
}

TEST_F(Pppd, TakesItsOptions) {
  for (const char* wrong :
       {"zorv-type openvpn", "zorv-type x", "zorv-deadline 0", "zorv-deadline 61"}) {
    EXPECT_FALSE(load(ZORV_PPP_PLUGIN, {wrong})) << wrong;
  }
  ASSERT_TRUE(load(ZORV_PPP_PLUGIN, {"zorv-deadline 1", "zorv-type l2tp"}));
  begin(stranger);
  EXPECT_FALSE(give_name(Method::mschap2, "amy", "wrong"));
  EXPECT_EQ(rows(), Lines{"1|2|amy|192.0.2.9|||0|0|0"});
}

}  // namespace
