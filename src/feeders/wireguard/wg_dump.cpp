#include "wg_dump.h"

#include <algorithm>
#include <charconv>

namespace wireguard {
namespace {

constexpr size_t kInterfaceColumns = 4;  // private key, public key, port, mark

enum Column : size_t {
  kKey,
  kPresharedKey,
  kEndpoint,
  kAllowedIps,
  kHandshake,
  kReceived,
  kSent,
  kKeepalive,
  kPeerColumns
};

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (size_t begin = 0; begin <= text.size();) {
    const size_t end = std::min(text.find(separator, begin), text.size());
    parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

// As far as the state's file and the records can hold it.
bool read_number(std::string_view text, uint64_t* ret) {
  int64_t number = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  *ret = static_cast<uint64_t>(number);
  return error == std::errc() && number >= 0 && end == text.data() + text.size();
}

// "192.0.2.7:51820", "[2001:db8::7]:51820" or "(none)".
std::string address_of(std::string_view endpoint) {
  const size_t colon = endpoint.rfind(':');
  if (colon == std::string_view::npos) {
    return "";
  }
  std::string_view address = endpoint.substr(0, colon);
  if (address.starts_with('[') && address.ends_with(']')) {
    address = address.substr(1, address.size() - 2);
  }
  return std::string(address);
}

// The peer's own addresses. Networks behind it count only where it has none.
std::string tunnel_addresses(std::string_view allowed_ips) {
  std::string addresses;
  const std::vector<std::string_view> ranges = split(allowed_ips, ',');
  for (const std::string_view range : ranges) {
    const bool is_host =
        range.ends_with(range.find(':') != std::string_view::npos ? "/128" : "/32");
    if (is_host) {
      addresses += addresses.empty() ? "" : ",";
      addresses += range.substr(0, range.find('/'));
    }
  }
  const bool has_range = addresses.empty() && ranges[0] != "(none)";
  return has_range ? std::string(ranges[0]) : addresses;
}

}  // namespace

std::optional<std::vector<Peer>> read_dump(std::string_view text) {
  if (!text.ends_with('\n') || text.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  const std::vector<std::string_view> lines = split(text.substr(0, text.size() - 1), '\n');
  if (split(lines[0], '\t').size() != kInterfaceColumns) {
    return std::nullopt;
  }
  std::vector<Peer> peers;
  for (size_t i = 1; i < lines.size(); ++i) {
    const std::vector<std::string_view> columns = split(lines[i], '\t');
    Peer peer;
    if (columns.size() != kPeerColumns || !read_number(columns[kHandshake], &peer.handshake) ||
        !read_number(columns[kReceived], &peer.received) ||
        !read_number(columns[kSent], &peer.sent)) {
      return std::nullopt;
    }
    peer.key = columns[kKey];
    peer.source_ip = address_of(columns[kEndpoint]);
    peer.vpn_ip = tunnel_addresses(columns[kAllowedIps]);
    peers.push_back(std::move(peer));
  }
  return peers;
}

}  // namespace wireguard
