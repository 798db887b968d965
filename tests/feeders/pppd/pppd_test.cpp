// zorv.so under a stand-in for pppd, with the real daemon: what happens on a link, and what is kept
// of it. The tests of servers run it under pppd itself.
#include <gtest/gtest.h>
#include <poll.h>

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
      "FROM conn_server_log");
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
    put(remote_number, "192.0.2.9");
    void* const plugin = dlopen(ZORV_PPP_PLUGIN, RTLD_NOW);
    ASSERT_NE(plugin, nullptr) << dlerror();
    ASSERT_STREQ(static_cast<char*>(dlsym(plugin, "pppd_version")), VERSION);
    const auto init = reinterpret_cast<void (*)()>(dlsym(plugin, "plugin_init"));
    init();
    init();  // named by the common options, too
    deadline = static_cast<int*>(options[1].addr);
    *deadline = 60;
  }
  int* deadline = nullptr;
  PlatformDaemon platform;
  std::optional<Daemon> daemon{std::in_place};
};

TEST_F(Pppd, KeepsSessionsAsServersTellThem) {
  const struct {
    const char* starter;
    const char* remote_number;
    std::string ipparam;
    const char* kernel_l2tp;
    std::string kept;  // type and caller
  } cases[] = {
      {"pptpctrl\n", "", "10.9.0.2", "", "1|lea|10.9.0.2"},
      {"pptpctrl\n", "2001:db8::7", "10.9.0.2", "", "1|lea|2001:db8::7"},
      {"pptpctrl\n", "030 1234", "10.9.0.2", "", "1|lea|10.9.0.2"},
      {"pptpctrl\n", "030 1234", "office", "", "1|lea|030 1234"},
      {"xl2tpd\n", "", "", "", "2|lea|"},
      {"xl2tpd\n", "10.9.0.4", "10.9.0.3", "10.9.0.2", "2|lea|10.9.0.2"},
      {"openl2tpd\n", "", "", "10.9.0.2", "2|lea|10.9.0.2"},
  };
  Lines wanted;
  for (auto each : cases) {
    machine_files["/proc/" + std::to_string(getppid()) + "/comm"] = each.starter;
    put(remote_number, each.remote_number);
    ipparam = each.ipparam.empty() ? nullptr : each.ipparam.data();
    kernel_l2tp = each.kernel_l2tp;
    begin();
    ASSERT_TRUE(give_name(kMschap2, "lea"));
    count("48", "52");
    up();
    count("4294967396", "72");
    down(9, 1, 2);
    wanted.push_back("2|" + each.kept + "|10.0.0.2|ppp0|0|0|0");
    wanted.push_back("3|" + each.kept + "|10.0.0.2|ppp0|9|20|4294967348");
  }
  // With EAP no name comes before; and of an interface that is gone pppd's own counters are left.
  begin();
  let_in("eve", EAP_PEER);
  up();
  machine_files.clear();
  down(3, 700, 80);
  down(3, 700, 80);
  wanted.emplace_back("2|2|eve|10.9.0.2|10.0.0.2|ppp0|0|0|0");
  wanted.emplace_back("3|2|eve|10.9.0.2|10.0.0.2|ppp0|3|8|700");
  EXPECT_EQ(rows(), wanted);
}

struct Login {
  Method method;
  std::string name;
  const char* password;
  int failures_before;
  bool is_let_in;
  int failures_after;
  int end = EXIT_OK;  // of a right password; EXIT_OK lets in
  std::string answer{};
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
    end_of_right_password = login.end;
    EXPECT_EQ(give_name(login.method, login.name, login.password), login.is_let_in) << login.name;
    EXPECT_EQ(answer, login.answer);
    if (!login.is_let_in && login.end != EXIT_HANGUP) {
      wanted_rows.push_back("1|1|" + login.name + "|192.0.2.9|||0|0|0");
    }
    if (login.failures_after != 0) {
      wanted_failures.push_back(login.name + "|" + std::to_string(login.failures_after));
    }
  }
  EXPECT_EQ(rows(), wanted_rows);
  EXPECT_EQ(failures(), wanted_failures);
}

TEST_F(Pppd, LooksAtPasswordsAsPppdDoes) {
  begin();
  give_up();  // on a caller who has said nothing
  const std::string blocked = "Blocked, try again in 5 minutes";
  try_logins(
      {{kMd5, "amy", "right", 0, true, 0},
       {kMd5, "nobody", "right", 0, false, 1},
       {kMschap2, "cal", "wrong", 1, false, 2},
       {kMschap2, "dan", "right", 2, true, 0},
       {kMd5, "eva", "right", 3, false, 3, EXIT_OK, blocked},
       {kMschap2, "eve", "right", 3, false, 3, EXIT_OK, "E=691 R=0 C=0AFF00 V=0 M=" + blocked},
       {kPap, "fay", "right", 2, true, 0},
       {kPap, "gil", "wrong", 2, false, 3},
       {kPap, "hal", "right", 4, false, 4, EXIT_OK, blocked},
       {kMschap2, "", "wrong", 0, false, 0},
       {kPap, std::string(256, 'x'), "wrong", 0, false, 1},
       {kPap, "ian", "right", 0, false, 0, EXIT_HANGUP},
       {kMschap2, "joe", "right", 1, false, 2, EXIT_PEER_AUTH_FAILED}});
  EXPECT_EQ(told.at(1), "zorv: \"eva\" is refused: blocked after too many failed logins");
}

int other_verdict = 1;
int other_chap(char*, char*, int, chap_digest_type*, unsigned char*, unsigned char*, char*, int) {
  return other_verdict;
}
int other_pap(char*, char*, char**, wordlist**, wordlist**) {
  return other_verdict;
}

TEST_F(Pppd, AsksAnotherPluginWhoIsNotBlocked) {
  chap_verify_hook = other_chap;  // by a plugin that was loaded later
  pap_auth_hook = other_pap;
  try_logins({{kMschap2, "amy", "wrong", 2, true, 0},
              {kPap, "ben", "wrong", 0, true, 0},
              {kMd5, "cal", "right", 3, false, 3, EXIT_OK, "Blocked, try again in 5 minutes"},
              {kPap, "dan", "right", 3, false, 3, EXIT_OK, "Blocked, try again in 5 minutes"}});
  other_verdict = 0;
  begin();
  EXPECT_FALSE(give_name(kMschap2, "eve"));
  EXPECT_FALSE(give_name(kPap, "eve"));
  other_verdict = -1;
  EXPECT_TRUE(give_name(kPap, "gil")) << "left to pppd";
}

TEST_F(Pppd, JudgesRechallengesApart) {
  begin();
  ASSERT_TRUE(give_name(kMschap2, "amy"));
  up();
  set_failures("amy", 3);
  EXPECT_TRUE(give_name(kMschap2, "amy")) << "a block ends no session";
  EXPECT_TRUE(give_name(kMschap2, "ben")) << "a session keeps its user";
  give_up();
  EXPECT_EQ(failures(), Lines{"amy|3"}) << "silence is no wrong password";
  EXPECT_FALSE(give_name(kMschap2, "amy", "wrong"));
  down(5, 10, 20);
  EXPECT_EQ(rows(), (Lines{"2|1|amy|192.0.2.9|10.0.0.2|ppp0|0|0|0", "1|1|amy|192.0.2.9|||0|0|0",
                           "3|1|amy|192.0.2.9|10.0.0.2|ppp0|5|20|10"}));
  EXPECT_EQ(failures(), Lines{"amy|4"});
  begin();
  ASSERT_TRUE(give_name(kMschap2, "ben"));
  EXPECT_FALSE(give_name(kMschap2, "amy")) << "a session is no way round another's block";
}

TEST_F(Pppd, KeepsTheSideThatDials) {
  put(user, "nas");
  for (const int proof : {int{CHAP_WITHPEER}, 0}) {  // and where nobody proves anything
    begin();
    auth_done[0] = proof;
    up();
    down(7, 10, 20);
  }
  EXPECT_EQ(rows(), Lines{});
  EXPECT_EQ(sql("SELECT action, vpn_type, username, vpn_ip, uptime, tx_total, rx_total "
                "FROM conn_client_log"),
            (Lines{"2|256|nas|10.0.0.1|0|0|0", "3|256|nas|10.0.0.1|7|20|10"}));
  begin();
  auth_done[0] = CHAP_WITHPEER;
  ASSERT_TRUE(give_name(kMschap2, "amy"));
  up();
  EXPECT_EQ(rows(), Lines{"2|1|amy|192.0.2.9|10.0.0.2|ppp0|0|0|0"}) << "who asks is a server";
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
  *deadline = 1;
  set_failures("amy", 3);
  daemon.reset();
  {
    const RawSocket mute = RawSocket::listening("@/var/run/zorvd.sock");
    begin();
    EXPECT_TRUE(give_name(kMschap2, "amy"));
    up();
    EXPECT_EQ(waiting_callers(mute), 1) << "a login waits once";
    const std::string why = ": the daemon did not answer in time";
    const std::string unrecorded = "zorv: the login of \"amy\" is not recorded" + why;
    EXPECT_EQ(
        told,
        (Lines{"zorv: the login of \"amy\" goes on without asking whether it is blocked" + why,
               unrecorded}));
    EXPECT_FALSE(give_name(kMschap2, "amy", "wrong"));
    down(5, 10, 20);
    EXPECT_EQ(waiting_callers(mute), 1) << "its end waits once more";
    EXPECT_EQ(told.size(), 5U) << "not counted, not recorded, no logout";
  }
  begin();
  EXPECT_TRUE(give_name(kMschap2, "amy"));
  EXPECT_TRUE(told.back().ends_with(": the daemon does not run"))
      << "a link more is a deadline more";
  up();
  daemon.emplace();
  down(5, 10, 20);
  EXPECT_EQ(rows(), Lines{"3|1|amy|192.0.2.9|10.0.0.2|ppp0|5|20|10"});
  EXPECT_EQ(failures(), Lines{"amy|3"}) << "who was not asked about is not forgiven";
}

TEST_F(Pppd, TakesItsOptionsAndChoosesPppds) {
  EXPECT_EQ(options[1].lower_limit, 1);
  EXPECT_EQ(options[1].upper_limit, 60);
  const auto take_type = reinterpret_cast<int (*)(const char* const*)>(options[0].addr);
  for (const auto& [type, is_taken] : {std::pair("openvpn", 0), {"x", 0}, {"l2tp", 1}}) {
    EXPECT_EQ(take_type(&type), is_taken) << type;
  }
  told.clear();
  lcp_options& wanted = lcp_wantoptions[0];
  for (auto* other : {&wanted.neg_chap, &wanted.neg_upap, &wanted.neg_eap}) {
    wanted = {};
    wanted.neg_eap = *other = 1;
    begin();
    EXPECT_EQ(wanted.neg_eap != 0, other == &wanted.neg_eap);
  }
  EXPECT_EQ(told, Lines{"zorv: with EAP only, no block holds and no failed login is seen"});
  EXPECT_FALSE(give_name(kMschap2, "amy", "wrong"));
  EXPECT_EQ(rows(), Lines{"1|2|amy|192.0.2.9|||0|0|0"});
}

}  // namespace
