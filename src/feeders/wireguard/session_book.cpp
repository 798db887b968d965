#include "session_book.h"

#include <algorithm>

namespace wireguard {
namespace {

// From `then` to `now`: seconds, or bytes. A clock that was set back shows nothing.
uint64_t since(uint64_t then, uint64_t now) {
  return now > then ? now - then : 0;
}

void end_session(Book& book, KnownPeer& peer) {
  if (!peer.session) {
    return;
  }
  const Session& session = *peer.session;
  book.pending.push_back({false, session.name, session.source_ip, session.vpn_ip, session.last,
                          since(session.start, session.last),
                          since(session.received_then, peer.received),
                          since(session.sent_then, peer.sent)});
  peer.session.reset();
}

void begin_session(Book& book, KnownPeer& known, const Peer& peer, const NameOf& name_of) {
  known.session = Session{name_of(peer.key), peer.source_ip, peer.vpn_ip, peer.handshake,
                          peer.handshake,    known.received, known.sent};
  book.pending.push_back(
      {true, known.session->name, peer.source_ip, peer.vpn_ip, peer.handshake, 0, 0, 0});
}

void end_all(Book& book) {
  for (auto& [key, peer] : book.peers) {
    end_session(book, peer);
  }
  book.peers.clear();
}

bool was_set_up_anew(const KnownPeer& known, const Peer& peer) {
  return peer.received < known.received || peer.sent < known.sent ||
         (peer.handshake == 0 && known.handshake != 0);
}

// `gap` seconds after the look before.
void update(Book& book, KnownPeer& known, const Peer& peer, Times now, uint64_t gap,
            const NameOf& name_of) {
  const bool shook = peer.handshake != known.handshake;
  const bool received = peer.received > known.received;
  // Only a silence that nobody looked at is told by the clock on the wall, which may be set.
  const bool unseen = gap > kSilence;
  if (shook && known.session && unseen && since(known.session->last, peer.handshake) > kSilence) {
    end_session(book, known);
  }
  if (shook && !known.session) {
    begin_session(book, known, peer, name_of);
  }
  known.handshake = peer.handshake;
  known.received = peer.received;
  known.sent = peer.sent;
  if (!known.session) {
    return;
  }
  if (shook) {
    known.session->last = std::max(known.session->last, peer.handshake);
  }
  if (received && !unseen) {
    known.session->last = std::max(known.session->last, now.wall);
  }
  if (shook || received) {
    const uint64_t ago = unseen ? since(known.session->last, now.wall) : 0;
    known.heard = now.steady - std::min(ago, gap);
  }
  if (since(known.heard, now.steady) > kSilence) {
    end_session(book, known);
  }
}

}  // namespace

void look(Book& book, const Setup& setup, std::span<const Peer> peers, Times now,
          const NameOf& name_of) {
  const bool is_first = book.setup.boot.empty();
  const bool same_boot = book.setup.boot == setup.boot;
  const uint64_t gap = same_boot ? since(book.looked, now.steady) : now.steady;
  if (book.setup != setup) {
    end_all(book);
  }
  std::map<std::string, KnownPeer> before = std::move(book.peers);
  book.peers.clear();
  for (const Peer& peer : peers) {
    KnownPeer known;
    if (const auto found = before.find(peer.key); found != before.end()) {
      known = std::move(found->second);
      before.erase(found);
    } else if (is_first) {
      const bool is_alive = since(peer.handshake, now.wall) <= kSilence;
      known.handshake = is_alive ? 0 : peer.handshake;
      known.received = peer.received;
      known.sent = peer.sent;
    }
    if (was_set_up_anew(known, peer)) {
      end_session(book, known);
      known = {};
    }
    update(book, known, peer, now, gap, name_of);
    book.peers.emplace(peer.key, std::move(known));
  }
  for (auto& [key, gone] : before) {
    end_session(book, gone);
  }
  book.setup = setup;
  book.looked = now.steady;
}

}  // namespace wireguard
