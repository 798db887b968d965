#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "global_options.h"
#include "harness/daemon.h"
#include "harness/fake_service.h"
#include "harness/test_root.h"
#include "json_ref.h"

namespace {

using harness::FakeService;
using zorv::TYPE;
using Lines = std::vector<std::string>;

TEST(DefaultGateway, InterfaceNamesTellKindAndNumber) {
  using enum zorv::TYPE;
  const struct {
    const char* ifname;
    int incoming;
    TYPE type;
    int index;
  } cases[] = {
      {"ppp1000", 0, PPTP_CLIENT_TYPE, 0},
      {"ppp1249", 0, PPTP_CLIENT_TYPE, 249},
      {"ppp1250", 0, L2TP_CLIENT_TYPE, 0},
      {"tun1999", 0, L2TP_CLIENT_TYPE, 749},
      {"tun2003", 0, OVPN_CLIENT_TYPE, 3},
      {"ztunc2501", 0, FENLO_CLIENT_TYPE, 1},
      {"wgc2999", 0, FENLO_CLIENT_TYPE, 499},
      {"wgc3002", 0, WIREGUARD_CLIENT_TYPE, 2},
      {"tun5", 77, NONE_TYPE, 0},
      {"ppp999", 0, NONE_TYPE, 0},
      {"tun", 2000, NONE_TYPE, 0},
      {"ppp-1251", 0, L2TP_CLIENT_TYPE, -1},
      {"wgc-999", 0, NONE_TYPE, 0},
      {"tun-2000x", 0, OVPN_CLIENT_TYPE, 0},
      // Beyond 32 bits the number is the limit.
      {"tun4294969299", 0, WIREGUARD_CLIENT_TYPE, INT_MAX % 3000},
      {"tun-99999999999999999999", 0, WIREGUARD_CLIENT_TYPE, INT_MIN % 3000},
      // Found anywhere, read behind the prefix's length from the start.
      {"xppp1003", 0, NONE_TYPE, 0},
      {"xx 2001tun", 0, OVPN_CLIENT_TYPE, 1},
      {"pppztunc2001", 0, NONE_TYPE, 0},
      // No prefix: the incoming number counts.
      {"eth0", 1024, PPTP_CLIENT_TYPE, 24},
      {"eth0", 7, NONE_TYPE, 0},
  };
  for (const auto& expected : cases) {
    TYPE type = PPTP_SERVER_TYPE;
    int index = expected.incoming;
    zorv::ifname_to_typeindex(expected.ifname, type, index);
    EXPECT_EQ(type, expected.type) << expected.ifname;
    EXPECT_EQ(index, expected.index) << expected.ifname;
  }
}

TEST(DefaultGateway, TextsOfKindsAndIntervals) {
  using enum zorv::TYPE;
  std::string texts;
  for (const TYPE type : {PPTP_CLIENT_TYPE, L2TP_CLIENT_TYPE, OVPN_CLIENT_TYPE, FENLO_CLIENT_TYPE,
                          WIREGUARD_CLIENT_TYPE, PPTP_SERVER_TYPE, NONE_TYPE}) {
    texts += zorv::typeindex_to_sname(type, -3) + "|" + zorv::type_to_string(type) + "|";
  }
  for (const int interval : {-1, 0, 1, 5, 10, 2, -2}) {
    texts += zorv::interval_to_string(interval) + "|";
  }
  EXPECT_EQ(texts,
            "PPTP_CLIENT-3|PPTP|L2TP_CLIENT-3|L2TP/IPSec|OPENVPN_CLIENT-3|OpenVPN|FENLO_CLIENT-3|"
            "Fenlo|WG_CLIENT-3|Wireguard|||||Not|immediatly|1|5|10|||");
}

TEST(DefaultGateway, CurrentOneIsTheFirstVpnOfTheList) {
  const char* const untouched = "\"untouched\"";
  const std::pair<const char*, const char*> cases[] = {
      {R"({"error":0,"data":[{"interface_type":"LAN","ifname":"eth0"},
          {"interface_type":7},{},{"interface_type":"VPN","ifname":"tun2002"},
          {"interface_type":"VPN","ifname":"wgc3001"},5]})",
       R"({"index":2,"type":1024})"},
      {R"({"error":0,"data":[{"interface_type":"VPN","ifname":"eth0"}]})",
       R"({"index":0,"type":0})"},
      {R"({"error":0,"data":{"interface_type":"VPN"}})", R"({"index":0,"type":0})"},
      {R"({"error":0})", R"({"index":0,"type":0})"},
      {R"({"error":0,"data":[{"interface_type":"VPN","ifname":7}]})", untouched},
      {R"({"error":0,"data":[{"interface_type":"LAN"},"x",
          {"interface_type":"VPN","ifname":"tun2002"}]})",
       untouched},
      {R"({"error":1})", untouched},
  };
  for (const auto& [reply, expected] : cases) {
    const FakeService service("NetworkService", "api.get_currentGWinfo", reply);
    JsonValue out("untouched");
    zorv::GlobalConfig().get_vpn_gw(out);
    std::string text;
    out.toString(text);
    EXPECT_EQ(text, expected) << reply;
  }
  EXPECT_TRUE(harness::log_holds("get_vpn_gw:val isn't an object."));
  EXPECT_TRUE(harness::log_holds("get_vpn_gw:get_currentGWinfo: kx_call failed"));
}

// A network service that knows two profiles, and a notification tool that writes down the message
// and the values it is given.
class GatewaySettings : public testing::Test {
 protected:
  void SetUp() override {
    // The detached tools become this process's children; an emulator may not know how.
    inherits_tools_ = prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;
    const std::string tool = "/usr/local/sbin/notify";
    harness::write_file(tool,
                        "#!/bin/sh\ncategory=$5 message=$7\nshift 13\nline=$category/$message\n"
                        "for value in \"$@\"; do line=\"$line|$value\"; done\n"
                        "echo \"$line\" >> \"$ZORV_ROOT/notified\"\n");
    chmod((harness::test_root() + tool).c_str(), 0755);
  }

  // Runs `work` and waits for every notification that it sent; sorted, since the tools run side by
  // side.
  template <class Work>
  Lines notifications_of(size_t due, Work work) {
    harness::write_file("/notified", "");
    FakeService service("NetworkService",
                        {{"external_dev.list",
                          [] {
                            return R"({"error":0,"data":{"tun2001":{"profile":"Office"},
            "wgc3004":{"profile":"Home \"2\""}}})";
                          }},
                         {"external_dev.update_vpn_gw", [] { return R"({"error":0})"; }}});
    work();
    calls_ = service.calls();
    service.stop();
    while (wait(nullptr) > 0 || errno == EINTR) {
    }
    Lines lines;
    harness::eventually([&] {
      lines = harness::lines_of(harness::read_file("/notified"));
      return inherits_tools_ || lines.size() >= due;
    });
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  Lines calls_;

 private:
  bool inherits_tools_ = false;
};

TEST_F(GatewaySettings, EveryEnabledPatchIsAnnounced) {
  const std::string gateways = R"("gw1":{"type":1024,"index":1,"sname":"tun2001"},)"
                               R"("gw2":{"type":65536.9,"index":4,"sname":"wgc3004"})";
  const std::pair<std::string, Lines> cases[] = {
      {"\"as_gw_en\":1," + gateways, {"C002/0011|OpenVPN|Office"}},
      {"\"as_gw_en\":1,\"failover_en\":1,\"failover_interval\":0," + gateways,
       {"C002/0011|OpenVPN|Office", "C002/0012|Wireguard|Home \"2\"", "C002/0013|immediatly"}},
      {"\"as_gw_en\":-1,\"failover_en\":2,\"failover_interval\":7," + gateways,
       {"C002/0011|OpenVPN|Office", "C002/0012|Wireguard|Home \"2\"", "C002/0013|"}},
      {"\"as_gw_en\":1,\"gw1\":{\"type\":1e99}", {"C002/0011||"}},
      {"\"as_gw_en\":0,\"failover_en\":1," + gateways, {}},
      {"\"as_gw_en\":\"1\"," + gateways, {}},
      {gateways, {}},
  };
  for (const auto& [section, expected] : cases) {
    const std::string text = "{\"gw_setting\":{" + section + "}}";
    const JsonRef patch(json_loads(text.c_str(), 0, nullptr));
    ASSERT_NE(patch, nullptr) << text;
    EXPECT_EQ(notifications_of(expected.size(), [&] { zorv::zorv_gw_nclog(patch.get()); }),
              expected)
        << text;
  }
  EXPECT_EQ(notifications_of(0, [] { zorv::zorv_gw_nclog(nullptr); }), Lines{});
}

constexpr const char* kFailover =
    R"({"as_gw_en": 1, "gw1": {"type": 1024, "index": 1, "sname": "tun2001"}, )"
    R"("failover_en": 1, "gw2": {"type": 65536, "index": 4, "sname": "wgc3004"}, )"
    R"("failover_interval": 5})";
constexpr const char* kSingle =
    R"({"as_gw_en": 1, "gw1": {"type": 1024, "index": 1, "sname": "tun2001"}, "failover_en": 0, )"
    R"("gw2": {"type": 65536, "index": 4}, "failover_interval": 5})";

TEST_F(GatewaySettings, DisabledClientsAreTakenOut) {
  const struct {
    const char* before;
    TYPE type;
    int index;
    const char* after;  // null: nothing is written
    Lines notifications;
  } cases[] = {
      {kFailover, zorv::OVPN_CLIENT_TYPE, 1,
       R"({"as_gw_en": 1, "gw1": {"type": 65536, "index": 4, "sname": "wgc3004"}, )"
       R"("failover_en": 0})",
       Lines{"C002/0011|Wireguard|Home \"2\""}},
      {kFailover, zorv::WIREGUARD_CLIENT_TYPE, 4,
       R"({"as_gw_en": 1, "gw1": {"type": 1024, "index": 1, "sname": "tun2001"}, )"
       R"("failover_en": 0})",
       Lines{"C002/0011|OpenVPN|Office"}},
      {kFailover, zorv::OVPN_CLIENT_TYPE, 4, nullptr, Lines{}},
      {kFailover, zorv::NONE_TYPE, 0, nullptr, Lines{}},
      {kSingle, zorv::OVPN_CLIENT_TYPE, 1,
       R"({"as_gw_en": 0, "failover_en": 0, "gw2": {"type": 65536, "index": 4}, )"
       R"("failover_interval": 5})",
       Lines{}},
      {kSingle, zorv::WIREGUARD_CLIENT_TYPE, 4, nullptr, Lines{}},
      {kSingle, zorv::NONE_TYPE, 0,
       R"({"as_gw_en": 1, "gw1": {"type": 1024, "index": 1, "sname": "tun2001"}, )"
       R"("failover_en": 0})",
       Lines{"C002/0011|OpenVPN|Office"}},
      {R"({"as_gw_en": 0, "gw1": {"type": 1024, "index": 1}})", zorv::OVPN_CLIENT_TYPE, 1, nullptr,
       Lines{}},
      {R"({"as_gw_en": 1, "failover_en": 1, "gw1": {"type": 256, "index": 2, "sname": "old"}, )"
       R"("gw2": {"type": 512.7}})",
       zorv::PPTP_CLIENT_TYPE, 2,
       R"({"as_gw_en": 1, "failover_en": 0, "gw1": {"type": 512, "index": 0}})",
       Lines{"C002/0011|L2TP/IPSec|"}},
      {R"([])", zorv::OVPN_CLIENT_TYPE, 1, nullptr, Lines{}},
  };
  for (const auto& expected : cases) {
    const std::string around = R"({"theirs": 1, "gw_setting": )";
    const std::string before = around + expected.before + "}\n";
    harness::write_file(zorv::kOptionsFile, before);
    harness::write_file(harness::kLogFile, "");
    const auto disable = [&] {
      EXPECT_EQ(zorv::GlobalConfig().disable_gateway(expected.type, expected.index), 0);
    };
    EXPECT_EQ(notifications_of(expected.notifications.size(), disable), expected.notifications);
    const bool is_changed = expected.after != nullptr;
    const std::string after = is_changed ? around + expected.after + "}" : before;
    EXPECT_EQ(harness::read_file(zorv::kOptionsFile), after);
    EXPECT_EQ(std::count(calls_.begin(), calls_.end(), "external_dev.update_vpn_gw "),
              is_changed ? 1 : 0);
    EXPECT_EQ(harness::log_holds("disable_gateway:gw changed, root=" + after), is_changed);
  }
}

}  // namespace
