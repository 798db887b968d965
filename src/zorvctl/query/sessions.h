// Sessions at this machine's VPN servers: the logins and logouts of the server log, joined.
//
// A logout tells for how long its session lasted, so a login of the same user and tunnel address at
// that time is its beginning; programs count seconds differently, so some are granted.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "zorv_records.h"

namespace zorvctl {

enum SessionState : int {
  kConnected = 1,  // a login without a logout
  kEnded = 2,
  kBrokenOff = 3,  // without a logout, and a later login shows that it is over
  kNoLogin = 4,    // a logout without a login: that was recycled, or never recorded
};

struct Session {
  std::string username;
  std::string source_ip;
  std::string vpn_ip;
  std::string outgoing;
  int vpn_type = 0;
  SessionState state = kConnected;
  uint64_t start = 0;    // seconds since the epoch
  uint64_t end = 0;      // 0 where nobody knows it
  uint64_t over_by = 0;  // of one that is broken off: when the login came that shows it
  int64_t tx_total = 0;
  int64_t rx_total = 0;

  // Whether it was there then, as far as that can be told.
  bool covers(uint64_t time) const;
  // For how many seconds it is known to have been there.
  uint64_t duration(uint64_t now) const;
};

class SessionJoiner {
 public:
  // A row of the server log, the oldest first. Failed logins are passed over.
  void add(const db_conn_server_log& row);

  // The sessions that were added or changed their state since the last call, as they are now. Those
  // that can change no more are then forgotten.
  std::vector<Session> take_changed();

  // By their beginnings. No row can be added any more.
  const std::vector<Session>& newest_first();

 private:
  void begin(const db_conn_server_log& row, Session session);
  void end(const db_conn_server_log& row, Session session);
  void forget(size_t index);

  std::vector<Session> sessions_;
  // Those that wait for their logout, by each place that they stand at.
  std::unordered_multimap<std::string, size_t> open_;
  std::vector<size_t> changed_;
};

}  // namespace zorvctl
