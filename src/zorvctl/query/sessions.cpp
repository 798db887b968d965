#include "sessions.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "zorv_connection_codes.h"

namespace zorvctl {
namespace {

constexpr uint64_t kGrace = 10;  // seconds
// A server may record a logout so many seconds after the login that took its place.
constexpr uint64_t kLatestLogout = 3600;

template <size_t Size>
std::string text(const char (&field)[Size]) {
  return {field, strnlen(field, Size)};
}

uint64_t distance(uint64_t one, uint64_t other) {
  return one > other ? one - other : other - one;
}

// Links of PPP have an interface each; the other servers' clients share one.
bool has_own_interface(const Session& session) {
  return session.vpn_type == zorv::PPTP_SERVER_TYPE || session.vpn_type == zorv::L2TP_SERVER_TYPE;
}

// Whether `later` stands where `earlier` would have to be, if it were there still.
bool takes_place_of(const Session& later, const Session& earlier) {
  const bool same_address =
      !later.vpn_ip.empty() && later.vpn_ip == earlier.vpn_ip && later.vpn_type == earlier.vpn_type;
  const bool same_interface = has_own_interface(later) && has_own_interface(earlier) &&
                              !later.outgoing.empty() && later.outgoing == earlier.outgoing;
  return earlier.start <= later.start && (same_address || same_interface);
}

// Where others would have to be looked for: at its tunnel address, or among its user's sessions
// where it has none; then on its own interface.
std::vector<std::string> places_of(const Session& session) {
  std::vector<std::string> places{
      std::to_string(session.vpn_type) +
      (session.vpn_ip.empty() ? " user " + session.username : " address " + session.vpn_ip)};
  if (has_own_interface(session) && !session.outgoing.empty()) {
    places.push_back("interface " + session.outgoing);
  }
  return places;
}

// Over for so long that its logout will not come any more.
bool is_given_up(const Session& session, uint64_t now) {
  return session.state == kBrokenOff && now > session.over_by + kLatestLogout;
}

}  // namespace

bool Session::covers(uint64_t time) const {
  if (time < start) {
    return false;
  }
  return state == kConnected || time < (state == kBrokenOff ? over_by : end);
}

uint64_t Session::duration(uint64_t now) const {
  const uint64_t last = state == kConnected ? now : end;
  return last > start ? last - start : 0;
}

void SessionJoiner::add(const db_conn_server_log& row) {
  Session session;
  session.username = text(row.username);
  session.source_ip = text(row.source_ip);
  session.vpn_ip = text(row.vpn_ip);
  session.outgoing = text(row.outgoing);
  session.vpn_type = row.vpn_type;
  if (row.action == zorv::kLoginOk) {
    begin(row, std::move(session));
  } else if (row.action == zorv::kLogout) {
    end(row, std::move(session));
  }
}

const std::vector<Session>& SessionJoiner::newest_first() {
  std::reverse(sessions_.begin(), sessions_.end());
  std::stable_sort(
      sessions_.begin(), sessions_.end(),
      [](const Session& one, const Session& other) { return one.start > other.start; });
  open_.clear();
  return sessions_;
}

std::vector<Session> SessionJoiner::take_changed() {
  std::sort(changed_.begin(), changed_.end());
  changed_.erase(std::unique(changed_.begin(), changed_.end()), changed_.end());
  std::vector<Session> changed;
  changed.reserve(changed_.size());
  for (const size_t index : changed_) {
    changed.push_back(sessions_[index]);
  }
  changed_.clear();
  // Those that are open move up, the older ones in front.
  std::map<size_t, size_t> places;
  for (const auto& [place, index] : open_) {
    places[index] = 0;
  }
  std::vector<Session> open;
  for (auto& [before, now] : places) {
    now = open.size();
    open.push_back(std::move(sessions_[before]));
  }
  for (auto& [place, index] : open_) {
    index = places[index];
  }
  sessions_ = std::move(open);
  return changed;
}

void SessionJoiner::begin(const db_conn_server_log& row, Session session) {
  session.start = row.time;
  const std::vector<std::string> places = places_of(session);
  std::vector<size_t> given_up;
  for (const std::string& place : places) {
    const auto [first, last] = open_.equal_range(place);
    for (auto open = first; open != last; ++open) {
      Session& earlier = sessions_[open->second];
      if (earlier.state == kConnected && takes_place_of(session, earlier)) {
        earlier.state = kBrokenOff;
        earlier.over_by = session.start;
        changed_.push_back(open->second);
      } else if (is_given_up(earlier, row.time)) {
        given_up.push_back(open->second);
      }
    }
  }
  for (const size_t index : given_up) {
    forget(index);
  }
  for (const std::string& place : places) {
    open_.emplace(place, sessions_.size());
  }
  changed_.push_back(sessions_.size());
  sessions_.push_back(std::move(session));
}

void SessionJoiner::end(const db_conn_server_log& row, Session session) {
  const uint64_t start = row.time - std::min(row.uptime, row.time);
  // The nearest of its logins. One that a later login had given up is found, too: the end of a
  // session may be recorded after the beginning of the next.
  size_t index = sessions_.size();
  auto nearest = kGrace;
  const auto [first, last] = open_.equal_range(places_of(session).front());
  for (auto open = first; open != last; ++open) {
    const Session& candidate = sessions_[open->second];
    const auto off = distance(candidate.start, start);
    const bool is_nearer =
        off < nearest || (off == nearest && (index == sessions_.size() || open->second > index));
    if (is_nearer && candidate.username == session.username &&
        candidate.vpn_type == session.vpn_type && candidate.vpn_ip == session.vpn_ip &&
        !is_given_up(candidate, row.time)) {
      index = open->second;
      nearest = off;
    }
  }
  if (index != sessions_.size()) {
    forget(index);
    sessions_[index].state = kEnded;
  } else {
    session.start = start;
    session.state = kNoLogin;
    sessions_.push_back(std::move(session));
  }
  changed_.push_back(index);
  sessions_[index].end = row.time;
  sessions_[index].tx_total = row.tx_total;
  sessions_[index].rx_total = row.rx_total;
}

void SessionJoiner::forget(size_t index) {
  for (const std::string& place : places_of(sessions_[index])) {
    const auto [first, last] = open_.equal_range(place);
    const auto open =
        std::find_if(first, last, [index](const auto& entry) { return entry.second == index; });
    if (open != last) {
      open_.erase(open);
    }
  }
}

}  // namespace zorvctl
