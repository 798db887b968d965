// Sessions made of what WireGuard tells, which knows no logins.
//
// A session begins with a handshake after more than three minutes of silence: a client that sends
// renews its handshake every two, and after three its keys are void. It ends with the last sign of
// life: a handshake, or bytes received. What a session transferred is the difference of counters
// that run on from one session to the next, until the peer or its interface is set up anew. A new
// endpoint is no new session.
//
// No clock, no files: everything comes in, and what is to be recorded comes out.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>

#include "wg_dump.h"

namespace wireguard {

constexpr uint64_t kSilence = 180;  // seconds

struct Times {
  uint64_t wall;    // seconds since the epoch
  uint64_t steady;  // seconds since the machine started, suspended ones included
};

// One interface, from when it was set up until it is taken down.
struct Setup {
  std::string boot;    // the kernel's identifier of this run of the machine
  uint64_t index = 0;  // the interface's number, 0 where it is not there
  bool operator==(const Setup&) const = default;
};

struct Session {
  std::string name;
  std::string source_ip;
  std::string vpn_ip;
  uint64_t start = 0;
  uint64_t last = 0;           // sign of life
  uint64_t received_then = 0;  // the counters when it began
  uint64_t sent_then = 0;
  bool operator==(const Session&) const = default;
};

struct KnownPeer {
  uint64_t handshake = 0;
  uint64_t received = 0;
  uint64_t sent = 0;
  uint64_t heard = 0;  // the last sign of life on the steady clock
  std::optional<Session> session;
  bool operator==(const KnownPeer&) const = default;
};

// A row to come.
struct Event {
  bool is_login = false;
  std::string name;
  std::string source_ip;
  std::string vpn_ip;
  uint64_t time = 0;
  uint64_t uptime = 0;  // this and the rest: of a logout
  uint64_t received = 0;
  uint64_t sent = 0;
  bool operator==(const Event&) const = default;
};

struct Book {
  Setup setup;          // as last seen; without a boot before the first look
  uint64_t looked = 0;  // when that was, on the steady clock
  std::map<std::string, KnownPeer> peers;
  std::deque<Event> pending;  // in the order in which they are to be recorded
  bool operator==(const Book&) const = default;
};

using NameOf = std::function<std::string(const std::string& key)>;

// Takes in what the interface tells now; no peers while it is not there. What a peer that is found
// at the first look of all has transferred by then is nobody's.
void look(Book& book, const Setup& setup, std::span<const Peer> peers, Times now,
          const NameOf& name_of);

}  // namespace wireguard
