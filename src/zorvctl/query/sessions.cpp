#include "sessions.h"

#include <algorithm>
#include <cstring>

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

}  // namespace

bool Session::covers(uint64_t time) const {
  if (time < start) {
    return false;
  }
  return state == kConnected || time < (state == kBrokenOff ? over_by : end);
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
  std::vector<Session> open;
  open.reserve(open_.size());
  for (size_t& index : open_) {
    open.push_back(std::move(sessions_[index]));
    index = open.size() - 1;
  }
  sessions_ = std::move(open);
  return changed;
}

void SessionJoiner::begin(const db_conn_server_log& row, Session session) {
  session.start = row.time;
  std::erase_if(open_, [&](size_t index) {
    const Session& earlier = sessions_[index];
    return earlier.state == kBrokenOff && row.time > earlier.over_by + kLatestLogout;
  });
  for (const size_t index : open_) {
    Session& earlier = sessions_[index];
    if (earlier.state == kConnected && takes_place_of(session, earlier)) {
      earlier.state = kBrokenOff;
      earlier.over_by = session.start;
      changed_.push_back(index);
    }
  }
  open_.push_back(sessions_.size());
  changed_.push_back(sessions_.size());
  sessions_.push_back(std::move(session));
}

void SessionJoiner::end(const db_conn_server_log& row, Session session) {
  const uint64_t start = row.time - std::min(row.uptime, row.time);
  // The nearest of its logins. One that a later login had given up is found, too: the end of a
  // session may be recorded after the beginning of the next.
  auto nearest = open_.end();
  for (auto open = open_.begin(); open != open_.end(); ++open) {
    const Session& candidate = sessions_[*open];
    const auto off = distance(candidate.start, start);
    if (off <= kGrace && candidate.username == session.username &&
        candidate.vpn_type == session.vpn_type && candidate.vpn_ip == session.vpn_ip &&
        (nearest == open_.end() || off <= distance(sessions_[*nearest].start, start))) {
      nearest = open;
    }
  }
  size_t index = sessions_.size();
  if (nearest != open_.end()) {
    index = *nearest;
    open_.erase(nearest);
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

}  // namespace zorvctl
