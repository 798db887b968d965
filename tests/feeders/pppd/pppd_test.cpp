// zorv.so under a stand-in for pppd, with the real daemon: what happens on a link, and what is kept
// of it. The tests of servers run it under pppd itself.
#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>
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
    strcpy(remote_number, "192.0.2.9");
    void* const plugin = dlopen(ZORV_PPP_PLUGIN, RTLD_NOW);
    ASSERT_NE(plugin, nullptr) << dlerror();
    const auto init = reinterpret_cast<void (*)()>(dlsym(plugin, "plugin_init"));
    init();
    init();                                    // named by the common options, too
    *static_cast<int*>(options[1].addr) = 60;  // the deadline
  }
  PlatformDaemon platform;
  std::optional<Daemon> daemon{std::in_place};
};

TEST_F(Pppd, KeepsSessionsAsServersTellThem) {
  // Who started pppd, remote number, ipparam, the kernel's L2TP; and what is kept: type and caller.
  const std::tuple<const char*, const char*, std::string, const char*, std::string> cases[] = {
      {"pptpctrl\n", "2001:db8::7", "10.9.0.2", "", "1|lea|2001:db8::7"},
      {"pptpctrl\n", "030 1234", "10.9.0.2", "", "1|lea|10.9.0.2"},
      {"xl2tpd\n", "030 1234", "office", "", "2|lea|030 1234"},
      {"openl2tpd\n", "10.9.0.4", "10.9.0.3", "10.9.0.2", "2|lea|10.9.0.2"},
  };
  const std::string statistics = "/sys/class/net/ppp0/statistics/";
  Lines wanted;
  for (auto [starter, number, parameter, kernel_side, kept] : cases) {
    machine_files = {{"/proc/" + std::to_string(getppid()) + "/comm", starter},
                     {statistics + "rx_bytes", "48"},
                     {statistics + "tx_bytes", "52"}};
    strcpy(remote_number, number);
    ipparam = parameter.data();
    kernel_l2tp = kernel_side;
    begin();
    ASSERT_TRUE(give_name(kMschap2, "lea"));
    up();
    machine_files[statistics + "rx_bytes"] = "4294967396";
    machine_files[statistics + "tx_bytes"] = "72";
    down(9, 1, 2);
    wanted.push_back("2|" + kept + "|10.0.0.2|ppp0|0|0|0");
    wanted.push_back("3|" + kept + "|10.0.0.2|ppp0|9|20|4294967348");
  }
  // With EAP no name comes before; and of an interface that is gone pppd's own counters are left.
  lcp_wantoptions[0].neg_eap = 1;
  begin();
  EXPECT_EQ(told, Lines{"zorv: with EAP only, no block holds and no failed login is seen"});
  let_in("eve", EAP_PEER);
  up();
  machine_files.clear();
  down(3, 700, 80);
  down(3, 700, 80);
  wanted.emplace_back("2|2|eve|10.9.0.2|10.0.0.2|ppp0|0|0|0");
  wanted.emplace_back("3|2|eve|10.9.0.2|10.0.0.2|ppp0|3|8|700");
  EXPECT_EQ(rows(), wanted);
}

// With the failures before and after it: with none after it a login lets in, unless the link ends.
using Login = std::tuple<Method, std::string, const char*, int, int, std::string, int>;

// Goes through the logins and compares what is kept of them all.
void try_logins(const std::vector<Login>& logins) {
  Lines wanted_rows;
  Lines wanted_failures;
  for (const auto& [method, name, password, before, after, wanted_answer, end] : logins) {
    SCOPED_TRACE(name);
    if (before != 0) {
      set_failures(name, before);
    }
    begin();
    EXPECT_EQ(give_name(method, name, password, end), after == 0 && end == EXIT_OK);
    EXPECT_EQ(answer, wanted_answer);
    if (after != 0) {
      wanted_rows.push_back("1|1|" + name + "|192.0.2.9|||0|0|0");
      wanted_failures.push_back(name + "|" + std::to_string(after));
    }
  }
  EXPECT_EQ(rows(), wanted_rows);
  EXPECT_EQ(failures(), wanted_failures);
}

const std::string kBlocked = "Blocked, try again in 5 minutes";

TEST_F(Pppd, LooksAtPasswordsAsPppdDoes) {
  lcp_wantoptions[0].neg_eap = lcp_wantoptions[0].neg_upap = 1;
  begin();
  EXPECT_FALSE(lcp_wantoptions[0].neg_eap) << "its passwords are not seen";
  give_up();  // on a caller who has said nothing
  try_logins({{kMd5, "amy", "right", 0, 0, "", 0},
              {kMd5, "nobody", "right", 0, 1, "", 0},
              {kMschap2, "cal", "wrong", 1, 2, "", 0},
              {kMschap2, "dan", "right", 2, 0, "", 0},
              {kMd5, "eva", "right", 3, 3, kBlocked, 0},
              {kMschap2, "eve", "right", 3, 3, "E=691 R=0 C=0AFF00 V=0 M=" + kBlocked, 0},
              {kPap, "fay", "right", 2, 0, "", 0},
              {kPap, "gil", "wrong", 2, 3, "", 0},
              {kPap, "hal", "right", 4, 4, kBlocked, 0},
              {kPap, std::string(256, 'x'), "wrong", 0, 1, "", 0},
              {kPap, "ian", "right", 0, 0, "", EXIT_HANGUP},
              {kMschap2, "joe", "right", 1, 2, "", EXIT_PEER_AUTH_FAILED}});
  EXPECT_EQ(told.at(1), "zorv: \"eva\" is refused: blocked after too many failed logins");
}

TEST_F(Pppd, AsksAnotherPluginWhoIsNotBlocked) {
  chap_verify_hook = [](auto...) { return 1; };  // by a plugin that was loaded later
  pap_auth_hook = [](auto...) { return 0; };
  try_logins({{kMschap2, "amy", "wrong", 2, 0, "", 0},
              {kMd5, "ben", "wrong", 3, 3, kBlocked, 0},
              {kPap, "cal", "right", 0, 1, "", 0}});
}

TEST_F(Pppd, JudgesRechallengesApart) {
  begin();
  ASSERT_TRUE(give_name(kMschap2, "amy"));
  up();
  set_failures("amy", 3);
  set_failures("eve", 3);
  EXPECT_TRUE(give_name(kMschap2, "amy")) << "a block ends no session";
  EXPECT_TRUE(give_name(kMschap2, "ben")) << "a session keeps its user";
  give_up();  // silence is no wrong password
  EXPECT_FALSE(give_name(kMschap2, "eve")) << "a session is no way round another's block";
  EXPECT_FALSE(give_name(kMschap2, "amy", "wrong"));
  down(5, 10, 20);
  EXPECT_EQ(rows(),
            (Lines{"2|1|amy|192.0.2.9|10.0.0.2|ppp0|0|0|0", "1|1|eve|192.0.2.9|||0|0|0",
                   "1|1|amy|192.0.2.9|||0|0|0", "3|1|amy|192.0.2.9|10.0.0.2|ppp0|5|20|10"}));
  EXPECT_EQ(failures(), (Lines{"amy|4", "eve|3"}));
}

TEST_F(Pppd, KeepsTheSideThatDialsAndTheTypeThatIsChosen) {
  const char* const types[] = {"l2tp", "openvpn"};
  const auto take_type = reinterpret_cast<int (*)(const char* const*)>(options[0].addr);
  EXPECT_TRUE(take_type(&types[0]) && !take_type(&types[1]));
  strcpy(remote_number, "");
  strcpy(user, "nas");
  for (const int proof : {int{CHAP_WITHPEER}, 0}) {  // and where nobody proves anything
    begin();
    auth_done[0] = proof;
    up();
    down(7, 10, 20);
  }
  EXPECT_EQ(sql("SELECT action, vpn_type, username, vpn_ip, uptime, tx_total, rx_total "
                "FROM conn_client_log"),
            (Lines{"2|512|nas|10.0.0.1|0|0|0", "3|512|nas|10.0.0.1|7|20|10"}));
  begin();
  auth_done[0] = CHAP_WITHPEER;
  ASSERT_TRUE(give_name(kMschap2, "amy"));
  up();
  EXPECT_EQ(rows(), Lines{"2|2|amy||10.0.0.2|ppp0|0|0|0"}) << "who asks is a server";
}

TEST_F(Pppd, RefusesNobodyForADaemonThatIsAwayOrMute) {
  *static_cast<int*>(options[1].addr) = 1;
  set_failures("amy", 3);
  daemon.reset();
  {
    const RawSocket mute = RawSocket::listening("@/var/run/zorvd.sock");
    listen(mute.get(), 9);
    begin();
    EXPECT_TRUE(give_name(kMschap2, "amy"));
    up();
    const std::string why = ": the daemon did not answer in time";
    EXPECT_EQ(
        told,
        (Lines{"zorv: the login of \"amy\" goes on without asking whether it is blocked" + why,
               "zorv: the login of \"amy\" is not recorded" + why}));
    EXPECT_FALSE(give_name(kMschap2, "amy", "wrong"));
    down(5, 10, 20);
    EXPECT_EQ(told.size(), 5U) << "not counted, not recorded, no logout";
    int callers = 0;
    for (pollfd caller{mute.get(), POLLIN, 0}; poll(&caller, 1, 0) == 1; ++callers) {
      mute.accept();
    }
    EXPECT_EQ(callers, 2) << "a login waits once, its end once more";
  }
  // Away or mute, with the time used up or not: what happened waits.
  std::filesystem::create_directories(test_root() + "/var/spool/zorv");
  told.clear();
  up();
  down(6, 10, 20);
  EXPECT_EQ(told.at(1),
            "zorv: the logout of \"amy\" is not recorded yet: it waits in the spool until the "
            "daemon is started again");
  daemon.emplace();
  EXPECT_EQ(zorvctl({"spool", "deliver"}).out, "2 records delivered\n");
  EXPECT_EQ(sql("SELECT action, username, uptime FROM conn_server_log"),
            (Lines{"2|amy|0", "3|amy|6"}));
  begin();
  EXPECT_FALSE(give_name(kMschap2, "amy")) << "a link has a deadline of its own";
}

}  // namespace
