// What the server log tells of a time window: sessions and failed logins, and what they sum up to.
//
// A session counts once and whole, when it began. One that was there before the window, and still
// in it, counts at the window's beginning.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "sessions.h"
#include "time_argument.h"

namespace zorvctl {

// Both ends, in seconds since the epoch, belong to it.
struct Window {
  std::optional<unsigned long long> since;
  std::optional<unsigned long long> until;

  bool holds(uint64_t time) const;
  bool meets(const Session& session) const;
};

// A session's beginning within the window, or a failed login.
struct Occasion {
  std::string_view username;
  std::string_view source_ip;
  int vpn_type;
  uint64_t time;
};

struct LogEvents {
  std::function<void(const Occasion& beginning, const Session& session)> on_session;
  std::function<void(const Occasion& failure)> on_failure;
  std::function<void(unsigned long long read, unsigned long long total)> on_wait;
};

// Failures come in the order of the log, then sessions, the newest first. Returns as run_query().
int read_log(const Window& window, const LogEvents& events);

// Sums of sessions and failures. Unknown times and bytes count as 0.
struct Totals {
  record_int64 sessions = 0;
  record_uint64 uptime = 0;   // seconds
  record_int64 tx_total = 0;  // bytes
  record_int64 rx_total = 0;  // bytes
  record_int64 failures = 0;
  record_uint64 last_seen = 0;  // the latest login, logout or failure; now for who is connected

  void add(const Session& session, uint64_t now);
  void add_failure(uint64_t time);
  void add(const Totals& other);
};

using GroupKey = std::variant<std::string, record_int64>;
using Groups = std::map<GroupKey, Totals>;
// What an occasion is counted under.
using KeyOf = GroupKey (*)(const Occasion& occasion, Zone zone);

GroupKey user_of(const Occasion& occasion, Zone zone);
GroupKey source_of(const Occasion& occasion, Zone zone);
GroupKey protocol_of(const Occasion& occasion, Zone zone);
GroupKey day_of(const Occasion& occasion, Zone zone);   // "2026-11-21"
GroupKey hour_of(const Occasion& occasion, Zone zone);  // of the day, 0 to 23

std::string day_text(unsigned long long time, Zone zone);

}  // namespace zorvctl
