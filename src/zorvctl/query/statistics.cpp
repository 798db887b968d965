#include "statistics.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "record_query.h"

namespace zorvctl {
namespace {

template <size_t Size>
std::string_view text(const char (&field)[Size]) {
  return {field, strnlen(field, Size)};
}

// When it was there for the last time, as far as that can be told.
uint64_t last_moment(const Session& session) {
  switch (session.state) {
    case kConnected:
      return std::numeric_limits<uint64_t>::max();
    case kBrokenOff:
      return session.over_by;
    case kEnded:
    case kNoLogin:
      break;
  }
  return session.end;
}

// The log may hold any number; a sum stays at the limit rather than turn around.
template <class Number>
void add_to(Number& sum, Number number) {
  if (__builtin_add_overflow(sum, number, &sum)) {
    sum = number < 0 ? std::numeric_limits<Number>::min() : std::numeric_limits<Number>::max();
  }
}

}  // namespace

bool Window::holds(uint64_t time) const {
  return (!since || time >= *since) && (!until || time <= *until);
}

bool Window::meets(const Session& session) const {
  return (!until || session.start <= *until) && (!since || last_moment(session) >= *since);
}

int read_log(const Window& window, const LogEvents& events) {
  SessionJoiner joiner;
  RecordQuery all;
  all.descending = false;
  QueryEvents rows;
  rows.on_record = [&](const void* record) {
    const auto& row = *static_cast<const db_conn_server_log*>(record);
    if (row.action != zorv::kLoginFail) {
      joiner.add(row);
    } else if (window.holds(row.time)) {
      events.on_failure({text(row.username), text(row.source_ip), row.vpn_type, row.time});
    }
    return true;
  };
  rows.on_wait = events.on_wait;
  const int status = run_query(zorv::kServerLog, all, rows);
  if (status != 0) {
    return status;
  }
  for (const Session& session : joiner.newest_first()) {
    if (window.meets(session)) {
      const uint64_t beginning = std::max<uint64_t>(session.start, window.since.value_or(0));
      events.on_session({session.username, session.source_ip, session.vpn_type, beginning},
                        session);
    }
  }
  return 0;
}

void Totals::add(const Session& session, uint64_t now) {
  const uint64_t seen = session.state == kConnected ? now : std::max(session.start, session.end);
  add(Totals{1, session.duration(now), session.tx_total, session.rx_total, 0, seen});
}

void Totals::add_failure(uint64_t time) {
  add(Totals{.failures = 1, .last_seen = time});
}

void Totals::add(const Totals& other) {
  add_to(sessions, other.sessions);
  add_to(uptime, other.uptime);
  add_to(tx_total, other.tx_total);
  add_to(rx_total, other.rx_total);
  add_to(failures, other.failures);
  last_seen = std::max(last_seen, other.last_seen);
}

GroupKey user_of(const Occasion& occasion, Zone /*zone*/) {
  return std::string(occasion.username);
}

GroupKey source_of(const Occasion& occasion, Zone /*zone*/) {
  return std::string(occasion.source_ip);
}

GroupKey protocol_of(const Occasion& occasion, Zone /*zone*/) {
  return record_int64{occasion.vpn_type};
}

GroupKey day_of(const Occasion& occasion, Zone zone) {
  return day_text(occasion.time, zone);
}

GroupKey hour_of(const Occasion& occasion, Zone zone) {
  return record_int64{calendar_of(static_cast<time_t>(occasion.time), zone).tm_hour};
}

std::string day_text(unsigned long long time, Zone zone) {
  const std::string text = time_text(time, zone);
  return text.substr(0, text.find(' '));
}

}  // namespace zorvctl
