// zorv.so under a stand-in for pppd, with the real daemon: what happens on a link, and what is kept
// of it. The tests of servers run it under pppd itself.
#include <gtest/gtest.h>
#include <poll.h>

#include <fstream>
#include <map>
#include <optional>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "pppd_standin.h"

namespace {

using namespace harness;
using namespace standin;
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
void set_failures(const std::string& user, int count) {
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
    put(remote_number, "192.0.2.9");
    ASSERT_TRUE(load(ZORV_PPP_PLUGIN, {"zorv-deadline 60"})) << new_log_lines().back();
  }
  std::optional<PlatformDaemon> platform;
  std::optional<Daemon> daemon;
};

// What a real server told the script at a session's end.
std::map<std::string, std::string> sample(const std::string& server) {
  std::ifstream file(ZORV_SOURCE "/tests/data/pppd/" + server + "-ip-down.env");
  std::map<std::string, std::string> values;
  for (std::string line; std::getline(file, line);) {
    values[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
  }
  return values;
}

TEST_F(Pppd, KeepsSessionsAsServersTellThem) {
  const struct {
    const char* server;
    const char* starter;
    const char* remote_number;
    std::string ipparam;
    const char* kernel_l2tp;
    const char* kept;  // type and caller
  } cases[] = {
      {"pptpd", "pptpctrl", "", "10.9.0.2", "", "|1|lea|10.9.0.2|"},
      {"pptpd", "pptpctrl", "2001:db8::7", "10.9.0.2", "", "|1|lea|2001:db8::7|"},
      {"pptpd", "pptpctrl", "030 1234", "10.9.0.2", "", "|1|lea|10.9.0.2|"},
      {"pptpd", "pptpctrl", "030 1234", "office", "", "|1|lea|030 1234|"},
      {"pptpd", "pptpctrl", "", "office", "", "|1|lea||"},
      {"xl2tpd", "xl2tpd", "", "", "", "|2|lea||"},
      {"xl2tpd", "xl2tpd", "10.9.0.4", "10.9.0.3", "10.9.0.2", "|2|lea|10.9.0.2|"},
      {"pppd", "openl2tpd", "", "", "10.9.0.2", "|2|lea|10.9.0.2|"},
  };
  // Named by the common options, too.
  ASSERT_TRUE(load(ZORV_PPP_PLUGIN));
  Lines wanted;
  for (auto each : cases) {
    starter = each.starter;
    put(remote_number, each.remote_number);
    ipparam = each.ipparam.empty() ? nullptr : each.ipparam.data();
    kernel_l2tp = each.kernel_l2tp;
    begin();
    auto told = sample(each.server);
    ASSERT_TRUE(give_name(kMschap2, told["PEERNAME"]));
    up(told["IFNAME"], told["IPLOCAL"], told["IPREMOTE"], {48, 52});
    const auto sent = std::stoull(told["BYTES_SENT"]);
    const auto received = (1ULL << 32) + std::stoull(told["BYTES_RCVD"]);
    down(static_cast<unsigned>(std::stoul(told["CONNECT_TIME"])), {received + 48, sent + 52});
    const std::string session = each.kept + told["IPREMOTE"] + "|" + told["IFNAME"] + "|";
    wanted.push_back("2" + session + "0|0|0");
    wanted.push_back("3" + session + told["CONNECT_TIME"] + "|" + std::to_string(sent) + "|" +
                     std::to_string(received));
  }
  EXPECT_EQ(rows(), wanted);

  begin();
  let_in("eve", EAP_PEER);
  up("ppp1", "10.0.0.1", "10.0.0.2", {1000, 1000});
  std::filesystem::remove_all(test_root() + "/sys");
  down(3, {700, 80});
  down(3, {700, 80});
  EXPECT_EQ(rows().size(), wanted.size() + 2);
  EXPECT_EQ(rows().back(), "3|2|eve|10.9.0.2|10.0.0.2|ppp1|3|80|700") << "counters of pppd's own";
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
void try_logins(const std::vector<Login>& logins) {
  Lines wanted_rows;
  Lines wanted_failures;
  for (const Login& login : logins) {
    if (login.failures_before != 0) {
      set_failures(login.name, login.failures_before);
    }
    begin();
    EXPECT_EQ(give_name(login.method, login.name, login.password), login.is_let_in) << login.name;
    if (!login.is_let_in) {
      wanted_rows.push_back(failed_row(login.name));
    }
    if (login.failures_after != 0) {
      wanted_failures.push_back(login.name + ("|" + std::to_string(login.failures_after)));
    }
  }
  EXPECT_EQ(rows(), wanted_rows);
  EXPECT_EQ(failures(), wanted_failures);
}

TEST_F(Pppd, LooksAtPasswordsAsPppdDoes) {
  try_logins({{kMd5, "amy", "right", 0, true, 0},
              {kMd5, "ben", "wrong", 0, false, 1},
              {kMschap, "nobody", "right", 0, false, 1},
              {kMschap2, "cal", "wrong", 1, false, 2},
              {kMschap2, "dan", "right", 2, true, 0},
              {kMschap2, "eve", "right", 3, false, 3},
              {kPap, "fay", "right", 2, true, 0},
              {kPap, "gil", "wrong", 2, false, 3},
              {kPap, "hal", "right", 4, false, 4},
              {kMschap2, "", "wrong", 0, false, 0}});
}

int other_verdict;
int other_calls;
int other_chap(char*, char*, int, chap_digest_type*, unsigned char*, unsigned char*, char*, int) {
  ++other_calls;
  return other_verdict;
}
int other_pap(char*, char*, char**, wordlist**, wordlist**) {
  ++other_calls;
  return other_verdict;
}

TEST_F(Pppd, AsksAnotherPluginWhoIsNotBlocked) {
  chap_verify_hook = other_chap;  // by a plugin that was loaded later
  pap_auth_hook = other_pap;
  other_verdict = 1;
  try_logins({{kMschap2, "amy", "wrong", 2, true, 0}, {kPap, "ben", "wrong", 0, true, 0}});
  EXPECT_EQ(other_calls, 2);
  try_logins({{kMschap2, "cal", "right", 3, false, 3}, {kPap, "dan", "right", 3, false, 3}});
  EXPECT_EQ(other_calls, 2) << "the blocked are refused before their password is looked at";
  other_verdict = 0;
  for (const Method method : {kMschap2, kPap}) {
    begin();
    EXPECT_FALSE(give_name(method, "eve"));
  }
  other_verdict = -1;
  begin();
  EXPECT_TRUE(give_name(kPap, "gil")) << "left to pppd";
  EXPECT_EQ(failures(), (Lines{"cal|3", "dan|3", "eve|2"}));
}

TEST_F(Pppd, CountsWhomPppdGivesUp) {
  begin();
  give_up();  // on a caller who has said nothing
  after_right_password = After::hung_up;
  begin();
  EXPECT_FALSE(give_name(kMschap2, "amy"));
  begin();
  give_up();
  after_right_password = After::number_refused;
  try_logins({{kMschap2, "ben", "right", 1, false, 2}});
}

TEST_F(Pppd, TellsTheBlockedHowLong) {
  set_failures("eve", 3);
  const std::string text = "Blocked, try again in 5 minutes";
  const std::pair<Method, std::string> cases[] = {
      {kMd5, text}, {kPap, text}, {kMschap2, "E=691 R=0 C=0AFF00 V=0 M=" + text}};
  for (const auto& [method, wanted] : cases) {
    begin();
    EXPECT_FALSE(give_name(method, "eve"));
    EXPECT_EQ(answer, wanted);
    EXPECT_EQ(new_log_lines(),
              Lines{"zorv: \"eve\" is refused: blocked after too many failed logins"});
  }
  begin();
  auth_done[0] = CHAP_WITHPEER;
  EXPECT_FALSE(give_name(kMschap2, "eve")) << "who had the server prove itself first";
}

TEST_F(Pppd, JudgesRechallengesApart) {
  begin();
  ASSERT_TRUE(give_name(kMschap2, "amy"));
  up("ppp0", "10.0.0.1", "10.0.0.2");
  set_failures("amy", 3);
  EXPECT_TRUE(give_name(kMschap2, "amy")) << "a block ends no session";
  EXPECT_TRUE(give_name(kMschap2, "ben")) << "a session keeps its user";
  give_up();
  EXPECT_EQ(failures(), Lines{"amy|3"}) << "silence is no wrong password";
  EXPECT_FALSE(give_name(kMschap2, "amy", "wrong"));
  down(5, {10, 20});
  EXPECT_EQ(rows(), (Lines{"2|1|amy|192.0.2.9|10.0.0.2|ppp0|0|0|0", failed_row("amy"),
                           "3|1|amy|192.0.2.9|10.0.0.2|ppp0|5|20|10"}));
  EXPECT_EQ(failures(), Lines{"amy|4"});

  begin();
  ASSERT_TRUE(give_name(kMschap2, "ben"));
  EXPECT_FALSE(give_name(kMschap2, "amy")) << "a session is no way round another's block";
}

TEST_F(Pppd, KnowsOneNameHoweverStrange) {
  const std::string longest(256, 'x');
  const std::pair<std::string, std::string> names[] = {{"o'neil\"; --", "o'neil\"; --"},
                                                       {"%s%n%llu%q", "%s%n%llu%q"},
                                                       {"a\x1b[2Jb\n\x7f", "a^[[2Jb^J^?"},
                                                       {"zo\xc3\xab", "zoM-CM-+"},
                                                       {longest + "yz", longest}};
  Lines wanted;
  for (const auto& [given, kept] : names) {
    for (int i = 0; i < 4; ++i) {
      begin();
      EXPECT_FALSE(give_name(i % 2 == 0 ? kMschap2 : kPap, given, i < 3 ? "wrong" : "right"));
      wanted.push_back(failed_row(kept));
    }
    EXPECT_EQ(failures(), Lines{kept + "|3"});
    sql("UPDATE privilege_user_block SET limit_count = 2");
    begin();
    EXPECT_TRUE(give_name(kPap, given));
    EXPECT_EQ(failures(), Lines{});
  }
  EXPECT_EQ(rows(), wanted);
}

TEST_F(Pppd, KeepsTheSideThatDials) {
  put(user, "nas");
  starter = "xl2tpd";
  for (const int proof : {int{CHAP_WITHPEER}, 0}) {  // and where nobody proves anything
    begin();
    auth_done[0] = proof;
    up("ppp0", "10.0.0.2", "10.0.0.1", {5, 6});
    down(7, {15, 26});
  }
  EXPECT_EQ(rows(), Lines{});
  begin();
  auth_done[0] = CHAP_WITHPEER;
  ASSERT_TRUE(give_name(kMschap2, "amy"));
  up("ppp0", "10.0.0.2", "10.0.0.1");
  EXPECT_EQ(rows(), Lines{"2|2|amy|192.0.2.9|10.0.0.1|ppp0|0|0|0"}) << "who asks is a server";
  EXPECT_EQ(sql("SELECT action, vpn_type, username, vpn_ip, uptime, tx_total, rx_total "
                "FROM conn_client_log ORDER BY id"),
            (Lines{"2|512|nas|10.0.0.2|0|0|0", "3|512|nas|10.0.0.2|7|20|10"}));
}

// How many callers wait at a service that answers none.
int waiting_callers(const RawSocket& service) {
  int count = 0;
  for (pollfd ready{service.get(), POLLIN, 0}; poll(&ready, 1, 0) == 1; ++count) {
    service.accept();
  }
  return count;
}

TEST_F(Pppd, RefusesNobodyForADaemonThatIsAwayOrMute) {
  const std::string unasked =
      "zorv: the login of \"amy\" goes on without asking whether it is blocked: the daemon ";
  ASSERT_TRUE(take_option("zorv-deadline 1"));
  set_failures("amy", 3);
  daemon.reset();
  begin();
  EXPECT_TRUE(give_name(kMschap2, "amy"));
  EXPECT_EQ(new_log_lines(), Lines{unasked + "does not run"});
  {
    const RawSocket mute = RawSocket::listening("@/var/run/zorvd.sock");
    begin();
    EXPECT_TRUE(give_name(kMschap2, "amy"));
    up("ppp0", "10.0.0.1", "10.0.0.2");
    EXPECT_EQ(waiting_callers(mute), 1) << "a login waits once";
    EXPECT_EQ(new_log_lines(),
              (Lines{unasked + "did not answer in time",
                     "zorv: the login of \"amy\" is not recorded: the daemon did not answer in "
                     "time"}));
    EXPECT_FALSE(give_name(kMschap2, "amy", "wrong"));
    down(5, {10, 20});
    EXPECT_EQ(waiting_callers(mute), 1) << "its end waits once more";
    EXPECT_EQ(new_log_lines().size(), 3U) << "not counted, not recorded, no logout";
  }
  begin();
  EXPECT_TRUE(give_name(kMschap2, "amy"));
  up("ppp0", "10.0.0.1", "10.0.0.2");
  daemon.emplace();
  down(5, {10, 20});
  EXPECT_EQ(rows(), Lines{"3|1|amy|192.0.2.9|10.0.0.2|ppp0|5|20|10"});
  EXPECT_EQ(failures(), Lines{"amy|3"}) << "who was not asked about is not forgiven";
}

TEST_F(Pppd, LetsPppdAskForWhatCanBeJudged) {
  lcp_options& wanted = lcp_wantoptions[0];
  for (auto* other : {&wanted.neg_chap, &wanted.neg_upap, &wanted.neg_eap}) {
    wanted = {};
    wanted.neg_eap = *other = 1;
    begin();
    EXPECT_EQ(wanted.neg_eap != 0, other == &wanted.neg_eap);
  }
  EXPECT_EQ(new_log_lines(),
            Lines{"zorv: with EAP only, no block holds and no failed login is seen"});
}

TEST_F(Pppd, TakesItsOptions) {
  for (const char* wrong :
       {"zorv-type openvpn", "zorv-type x", "zorv-deadline 0", "zorv-deadline 61"}) {
    EXPECT_FALSE(take_option(wrong)) << wrong;
  }
  ASSERT_TRUE(take_option("zorv-deadline 60") && take_option("zorv-type l2tp"));
  begin();
  EXPECT_FALSE(give_name(kMschap2, "amy", "wrong"));
  EXPECT_EQ(rows(), Lines{"1|2|amy|192.0.2.9|||0|0|0"});
}

}  // namespace
