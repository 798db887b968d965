#include "nc_msg_db.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <string>

#include "detached_spawn.h"
#include "rooted.h"

namespace zorv {
namespace {

struct CatalogueRow {
  NcMsg name;
  nc_msg_struct entry;
};

constexpr CatalogueRow kCatalogue[] = {
    {NcMsg::C001_0001, {"C001", "0001", "info", "[{0}] Enabled {1} server."}},
    {NcMsg::C001_0002, {"C001", "0002", "info", "[{0}] Disabled {1} server."}},
    {NcMsg::C001_0003, {"C001", "0003", "info", "[{0}] Applied the {1} server configuration."}},
    {NcMsg::C001_0004,
     {"C001", "0004", "info", "[{0}] Applied the privilege settings for \"{1}\"."}},
    {NcMsg::C001_0005, {"C001", "0005", "warn", "[{0}] Removed the privileges of \"{1}\"."}},
    {NcMsg::C002_0006, {"C002", "0006", "info", "[{0}] Connected the {1} profile: \"{2}\"."}},
    {NcMsg::C002_0007, {"C002", "0007", "info", "[{0}] Disconnected the {1} profile: \"{2}\"."}},
    {NcMsg::C002_0008, {"C002", "0008", "warn", "[{0}] Deleted the {1} profile: \"{2}\"."}},
    {NcMsg::C002_0009, {"C002", "0009", "info", "[{0}] Edited the {1} profile: \"{2}\"."}},
    {NcMsg::C002_0010, {"C002", "0010", "info", "[{0}] Added the {1} profile: \"{2}\"."}},
    {NcMsg::C002_0011,
     {"C002", "0011", "info", "[{0}] Set NAS default gateway to the {1} profile: \"{2}\"."}},
    {NcMsg::C002_0012,
     {"C002", "0012", "info", "[{0}] Set backup NAS default gateway to the {1} profile: \"{2}\"."}},
    {NcMsg::C002_0013,
     {"C002", "0013", "info", "[{0}] Set the delay for NAS default gateway reversion to \"{1}\"."}},
    {NcMsg::C003_0014, {"C003", "0014", "info", "[{0}] Disabled {1} server."}},
    {NcMsg::C003_0015, {"C003", "0015", "info", "[{0}] Disconnected the {1} profile: \"{2}\"."}},
    {NcMsg::C003_0016, {"C003", "0016", "info", "[{0}] Enabled {1} server."}},
    {NcMsg::C001_0017,
     {"C001", "0017", "info",
      "[{0}] Connection log information. Date: {1}, Uptime: {2}, Username: {3}, Source: {4}, "
      "Client IP: {5}, Transmission rate: {6}, Receiving rate: {7}, Protocol: {8}, Connection "
      "status: {9}."}},
    {NcMsg::C002_0018,
     {"C002", "0018", "info",
      "[{0}] Connection log information. Date: {1}, Uptime: {2}, Username: {3}, Protocol: {4}, "
      "Client IP: {5}, Public IP: {6}, Server country: {7}, Transmission rate: {8}, Receiving "
      "rate: {9}, Connection status: {10}."}},
    {NcMsg::C001_0019,
     {"C001", "0019", "info",
      "[{0}] Updated the login attempt policy. Number of login attempts: {1}, Login failure block "
      "time: {2}, Login attempt policy: {3}."}},
    {NcMsg::C001_0020,
     {"C001", "0020", "warn",
      "[{0}] Blocked user \"{1}\". The user has reached the login attempt limit."}},
    {NcMsg::C001_0021, {"C001", "0021", "info", "[{0}] Unblocked user \"{1}\"."}},
    {NcMsg::C001_0022,
     {"C001", "0022", "info",
      "[{0}] Edited the WireGuard server settings. Server name: {1}, IP address: {2}, Listen port: "
      "{3}, Network interface: {4}, DNS server: {5}."}},
    {NcMsg::C001_0023,
     {"C001", "0023", "info",
      "[{0}] Added WireGuard peer. Peer name: {1}, Endpoint: {2}, Allowed IPs: {3}, Persistent "
      "keepalive: {4}."}},
    {NcMsg::C001_0024,
     {"C001", "0024", "info",
      "[{0}] Deleted WireGuard peer. Peer name: {1}, Endpoint: {2}, Allowed IPs: {3}, Persistent "
      "keepalive: {4}."}},
    {NcMsg::C001_0025,
     {"C001", "0025", "info",
      "[{0}] Edited WireGuard peer. Peer name: {1}, Endpoint: {2}, Allowed IPs: {3}, Persistent "
      "keepalive: {4}."}},
    {NcMsg::C002_0026,
     {"C002", "0026", "info",
      "[{0}] Added WireGuard client. Name: {1}, Address: {2}, Listen port: {3}, DNS server: {4}, "
      "Endpoint: {5}, Allowed IPs: {6}, Persistent keepalive: {7}."}},
    {NcMsg::C002_0027,
     {"C002", "0027", "info",
      "[{0}] Edited WireGuard client settings. Name: {1}, Address: {2}, Listen port: {3}, DNS "
      "server: {4}, Endpoint: {5}, Allowed IPs: {6}, Persistent keepalive: {7}."}},
    {NcMsg::C002_0028,
     {"C002", "0028", "info",
      "[{0}] Deleted WireGuard client. Name: {1}, Address: {2}, Listen port: {3}, DNS server: {4}, "
      "Endpoint: {5}, Allowed IPs: {6}, Persistent keepalive: {7}."}},
    {NcMsg::C001_0029,
     {"C001", "0029", "info",
      "[{0}] \"{1}\" status: {2}. The status will be synchronized with the Palisar rules."}},
    {NcMsg::C001_0030,
     {"C001", "0030", "warn", "[{0}] Failed to add \"{1}\" to the Palisar allow rule."}},
    {NcMsg::C001_0031,
     {"C001", "0031", "warn",
      "[{0}] setup_vpn_entrance failed. VPN connection may appear connected but network traffic "
      "cannot be sent out"}},
    {NcMsg::C001_0032, {"C001", "0032", "warn", "[{0}] boot_setup_nat may not execute properly."}},
    {NcMsg::C001_0033, {"C001", "0033", "warn", "[{0}] Set vpn routing rule failed."}},
    {NcMsg::C001_0034, {"C001", "0034", "warn", "[{0}] Failed to load ipip.ko or fou.ko."}},
    {NcMsg::C004_0031,
     {"C004", "0031", "info",
      "[{0}] Connected NAS to Kesta Orchestrator. Organization: {1}, Region: {2}, Hub: {3}."}},
    {NcMsg::C004_0032,
     {"C004", "0032", "info",
      "[{0}] Disconnected NAS from Kesta Orchestrator. Organization: {1}, Region: {2}, Hub: {3}."}},
    {NcMsg::C004_0036,
     {"C004", "0036", "warn",
      "[{0}] Reducing data transmission speed soon because the Super Node is approaching its usage "
      "limit (less than 5 GB remaining). Renewal date: {1}."}},
    {NcMsg::C004_0037,
     {"C004", "0037", "warn",
      "[{0}] Reduced the data transmission speed because the Super Node has reached its monthly "
      "usage limit. Renewal date: {1}."}},
    {NcMsg::C004_0038, {"C004", "0038", "error", "[{0}] Failed to connect to the Super Node."}},
    {NcMsg::C004_0039, {"C004", "0039", "info", "[{0}] Reconnected to the Super Node."}},
    {NcMsg::C004_0040,
     {"C004", "0040", "info", "[{0}] Changed the Kesta Express NAS Virtual IP from {1} to {2}."}},
};

constexpr bool rows_stand_in_the_order_of_their_names() {
  for (size_t i = 0; i < std::size(kCatalogue); ++i) {
    if (static_cast<size_t>(kCatalogue[i].name) != i) {
      return false;
    }
  }
  return std::size(kCatalogue) == kNcMsgCount;
}
static_assert(rows_stand_in_the_order_of_their_names());

constexpr auto entries_of_the_catalogue() {
  std::array<nc_msg_struct, kNcMsgCount> entries{};
  for (size_t i = 0; i < entries.size(); ++i) {
    entries[i] = kCatalogue[i].entry;
  }
  return entries;
}

constexpr const char* kNotifyTool = "/usr/local/sbin/notify";
constexpr const char* kApplication = "A238";
constexpr const char* kTypeOption = "3";
constexpr const char* kApplicationName = "ZORV Service";
constexpr size_t kMostValues = 12;

}  // namespace

constexpr std::array<nc_msg_struct, kNcMsgCount> __NC_MSG_DB__ = entries_of_the_catalogue();

namespace nclog {

void notify_send(const nc_msg_struct* msg, ...) {
  static const std::string tool = os::rooted(kNotifyTool);
  const auto fixed = std::to_array<const char*>(
      {kNotifyTool, "send", "-A", kApplication, "-C", msg->category_id, "-M", msg->message_id, "-l",
       msg->level, "-t", kTypeOption, msg->message, kApplicationName});
  static_assert(fixed.size() == 14);

  std::array<const char*, fixed.size() + kMostValues + 1> arguments{};
  std::copy(fixed.begin(), fixed.end(), arguments.begin());
  va_list values;
  va_start(values, msg);
  for (size_t slot = fixed.size(); slot < fixed.size() + kMostValues; ++slot) {
    arguments[slot] = va_arg(values, const char*);
    if (arguments[slot] == nullptr) {
      break;
    }
  }
  va_end(values);
  os::spawn_detached(tool.c_str(), arguments.data());
}

}  // namespace nclog
}  // namespace zorv
