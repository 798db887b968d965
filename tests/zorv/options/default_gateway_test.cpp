// The default gateway: who it is, who is told of it, and what is left when a client goes.
#include "default_gateway.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "global_options.h"
#include "harness/daemon.h"
#include "harness/fake_service.h"
#include "harness/test_root.h"

namespace {

using harness::FakeService;
using zorv::Removal;
using Lines = std::vector<std::string>;

TEST(DefaultGateway, InterfaceNamesTellKindAndNumber) {
  const std::tuple<const char*, int, const char*> cases[] = {
      {"ppp1250", 0, "512 0 L2TP_CLIENT0 L2TP/IPSec"},
      {"ztunc2501", 0, "4096 1 FENLO_CLIENT1 Fenlo"},
      {"wgc3002", 0, "65536 2 WG_CLIENT2 Wireguard"},
      {"tun-4294969299", 0, "65536 -2648 WG_CLIENT-2648 Wireguard"},
      // Found anywhere, read behind the prefix's length from the start.
      {"xx 2001tun", 0, "1024 1 OPENVPN_CLIENT1 OpenVPN"},
      {"eth0", 1024, "256 24 PPTP_CLIENT24 PPTP"},
  };
  for (const auto& [ifname, incoming, expected] : cases) {
    zorv::TYPE type = zorv::PPTP_SERVER_TYPE;
    int index = incoming;
    zorv::ifname_to_typeindex(ifname, type, index);
    EXPECT_EQ(std::to_string(type) + " " + std::to_string(index) + " " +
                  zorv::typeindex_to_sname(type, index) + " " + zorv::type_to_string(type),
              expected);
  }
}

TEST(DefaultGateway, CurrentOneIsTheFirstVpnOfTheList) {
  const std::pair<const char*, const char*> cases[] = {
      {R"([{"interface_type":"LAN","ifname":"tun2001"},{"interface_type":7},
          {"interface_type":"VPN","ifname":"tun2002"},{"interface_type":"VPN"},5])",
       R"({"index":2,"type":1024})"},
      {R"([{"interface_type":"VPN","ifname":7},{}])", R"("untouched")"},
      {R"(["x",{"interface_type":"VPN","ifname":"tun2002"}])", R"("untouched")"},
  };
  for (const auto& [data, expected] : cases) {
    const FakeService service("NetworkService", "api.get_currentGWinfo",
                              R"({"error":0,"data":)" + std::string(data) + "}");
    JsonValue out("untouched");
    zorv::GlobalConfig().get_vpn_gw(out);
    std::string text;
    out.toString(text);
    EXPECT_EQ(text, expected) << data;
  }
  EXPECT_TRUE(harness::log_holds("get_vpn_gw:val isn't an object."));
}

TEST(DefaultGateway, ClientsThatGoAreTakenOut) {
  const std::string gw1 = R"({"as_gw_en":1,"gw1":{"type":1024,"index":1,"sname":"a"})";
  const std::string gw2 = R"(,"gw2":{"type":65536,"index":4,"sname":"b"}})";
  const std::string both = gw1 + R"(,"failover_en":2,"failover_interval":5)" + gw2;
  const std::string second = R"({"as_gw_en":1,"gw1":{"type":65536,"index":4,"sname":"b"})";
  const std::string off = R"(,"failover_en":0)";
  const std::tuple<std::string, zorv::Gateway, Removal, std::string> cases[] = {
      {both, {1024, 1}, Removal::changed, second + off + "}"},
      {both, {65536, 4}, Removal::changed, gw1 + off + "}"},
      {gw1 + off + gw2, {1024, 1}, Removal::changed, R"({"as_gw_en":0)" + off + gw2},
      {gw1 + off + gw2, {0, 0}, Removal::changed, gw1 + off + "}"},
      {gw1 + off + ",\"failover_interval\":1}", {0, 0}, Removal::changed, gw1 + off + "}"},
      {gw1 + off + "}", {0, 0}, Removal::unchanged, gw1 + off + "}"},
      {gw1 + R"(,"failover_en":1,"gw2":{"type":512.7}})",
       {1024, 1},
       Removal::changed,
       R"({"as_gw_en":1,"gw1":{"type":512,"index":0})" + off + "}"},
  };
  for (const auto& [before, gone, removal, after] : cases) {
    const JsonRef section(json_loads(before.c_str(), 0, nullptr));
    EXPECT_EQ(remove_gateway(section.get(), gone), removal) << before;
    EXPECT_EQ(dump_json(section.get(), JSON_COMPACT).get(), after);
  }
}

TEST(DefaultGateway, EverySaveOfAnEnabledOneAnnouncesAndAppliesIt) {
  harness::install_notify();
  const auto devices = [] { return R"({"error":0,"data":{"b":{"profile":"Home"}}})"; };
  const FakeService service(
      "NetworkService", {{"external_dev.list", devices}, {"external_dev.update_vpn_gw", devices}});
  for (const char* patch : {
           R"({"gw_setting":{"as_gw_en":-1,"failover_en":2,"gw1":{"type":256,"sname":"c"},
                             "gw2":{"type":65536.9,"sname":"b"},"failover_interval":5}})",
           R"({"gw_setting":{"as_gw_en":"1","failover_en":1,"gw1":{"type":512}}})",
       }) {
    zorv::zorv_gw_nclog(JsonRef(json_loads(patch, 0, nullptr)).get());
  }
  harness::write_file(zorv::kOptionsFile,
                      R"({"theirs": 1, "gw_setting": {"as_gw_en": 1, "gw1": {"type": 1024},
                          "failover_en": 1, "gw2": {"type": 4096, "index": 4}}})");
  EXPECT_EQ(zorv::GlobalConfig().disable_gateway(zorv::OVPN_CLIENT_TYPE, 0), 0);
  EXPECT_EQ(zorv::GlobalConfig().disable_gateway(zorv::OVPN_CLIENT_TYPE, 0), 0) << "no gateway now";
  const std::string after = R"({"theirs": 1, "gw_setting": {"as_gw_en": 1, )"
                            R"("gw1": {"type": 4096, "index": 4}, "failover_en": 0}})";
  EXPECT_EQ(harness::read_file(zorv::kOptionsFile), after);
  EXPECT_TRUE(harness::log_holds("disable_gateway:gw changed, root=" + after));
  const std::string list = "external_dev.list {\"key\": \"";
  EXPECT_EQ(service.calls(),
            (Lines{list + "c\"}", list + "b\"}", list + "\"}", "external_dev.update_vpn_gw "}));
  Lines told;
  for (const std::string& line : harness::notifications(4)) {
    const size_t values = line.find("\"ZORV Service\"") + 14;
    told.push_back(line.substr(line.find("message_id") + 13, 4) +
                   line.substr(values, line.find(']', values) - values));
  }
  std::sort(told.begin(), told.end());  // the tools run side by side
  EXPECT_EQ(told, (Lines{R"(0011,"Fenlo","")", R"(0011,"PPTP","")", R"(0012,"Wireguard","Home")",
                         R"(0013,"5")"}));
}

}  // namespace
