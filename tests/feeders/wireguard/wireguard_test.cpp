#include <fmt/format.h>
#include <gtest/gtest.h>

#include <fstream>

#include "book_file.h"
#include "harness/test_root.h"
#include "peer_names.h"
#include "session_book.h"

namespace wireguard {
namespace {

constexpr uint64_t kEpoch = 1700000000;  // the wall's clock when the machine started

// What was told since the last call, and forgotten: "in 10 alice" and "out 70 alice 60 s 5/6", with
// the times since the machine started.
std::string told(Book& book) {
  std::string text;
  for (; !book.pending.empty(); book.pending.pop_front()) {
    const Event& event = book.pending.front();
    EXPECT_EQ(event.source_ip + " " + event.vpn_ip, "192.0.2.7 10.0.0.2");
    text += text.empty() ? "" : ", ";
    text += fmt::format("{} {} {}", event.is_login ? "in" : "out", event.time - kEpoch, event.name);
    if (!event.is_login) {
      text += fmt::format(" {} s {}/{}", event.uptime, event.received, event.sent);
    }
  }
  return text;
}

// A look at one peer. Times are seconds since the machine started.
struct Look {
  uint64_t when;
  uint64_t handshake;  // 0 for none yet
  uint64_t received;
  uint64_t sent;
  const char* told;
  uint64_t index = 1;  // 0: the interface is not there
  const char* boot = "first";
  uint64_t clock_set = 0;  // forward, since the machine started
};

// The first look shows a peer that was never there.
const std::pair<const char*, std::vector<Look>> kStories[] = {
    {"a handshake begins, renewed ones and bytes go on, silence ends",
     {{1000, 1000, 148, 92, "in 1000 alice"},
      {1120, 1120, 500, 400, ""},
      {1290, 1120, 600, 400, ""},
      {1470, 1120, 600, 900, ""},  // 180 s, and what is sent to nobody is no sign of life
      {1471, 1120, 600, 950, "out 1290 alice 290 s 600/950"},
      {1480, 1480, 748, 1042, "in 1480 alice"}}},
    {"set up anew: the counters begin again",
     {{1000, 999, 148, 92, "in 999 alice"},
      {1010, 999, 900, 800, ""},
      {1020, 1018, 148, 92, "out 1010 alice 11 s 900/800, in 1018 alice"},
      {1025, 1018, 200, 91, "out 1020 alice 2 s 148/92, in 1018 alice"},
      {1030, 0, 200, 91, "out 1025 alice 7 s 200/91"}}},
    {"the interface goes and comes, or is another in between",
     {{1000, 1000, 148, 92, "in 1000 alice"},
      {1005, 0, 0, 0, "out 1000 alice 0 s 148/92", 0},
      {1010, 1008, 300, 200, "in 1008 alice", 2},
      {1015, 1014, 400, 300, "out 1010 alice 2 s 300/200, in 1014 alice", 3}}},
    {"the machine starts again",
     {{1000, 1000, 148, 92, "in 1000 alice"},
      {1100, 1000, 900, 800, ""},
      {60, 1250, 1000, 900, "out 1100 alice 100 s 900/800, in 1250 alice", 1, "second", 1200}}},
    {"not looked at for long: one that went on, one that came and went, one that came",
     {{1000, 1000, 148, 92, "in 1000 alice"},
      {1600, 1180, 900, 800, "out 1180 alice 180 s 900/800"},
      {3000, 2000, 1900, 1800, "in 2000 alice, out 2000 alice 0 s 1000/1000"},
      {4000, 3950, 2000, 1900, "in 3950 alice"},
      {4300, 4200, 2100, 2000, "out 3950 alice 0 s 100/100, in 4200 alice"}}},
    {"the clock is set forward",
     {{1000, 1000, 148, 92, "in 1000 alice"},
      {1100, 1000, 200, 100, "", 1, "first", 5000},
      {1120, 6120, 300, 200, "", 1, "first", 5000},
      {1301, 6120, 300, 200, "out 6120 alice 5120 s 300/200", 1, "first", 5000}}},
};

// Between any two looks the watcher starts again.
TEST(WireguardSessions, BeginAndEndAsThePeerIsHeard) {
  for (const auto& [name, looks] : kStories) {
    Book book;
    look(book, {"first", 1}, std::vector<Peer>{{"k", "", "", 0, 0, 0}}, {kEpoch + 900, 900},
         nullptr);
    for (const Look& now : looks) {
      SCOPED_TRACE(fmt::format("{}, at {}", name, now.when));
      std::optional<Book> read = read_book(book_text(book));
      ASSERT_TRUE(read);
      std::vector<Peer> peers = {{"k", "192.0.2.7", "10.0.0.2",
                                  now.handshake == 0 ? 0 : kEpoch + now.handshake, now.received,
                                  now.sent}};
      peers.resize(now.index != 0 ? 1 : 0);
      look(*read, {now.boot, now.index}, peers, {kEpoch + now.when + now.clock_set, now.when},
           [](const std::string&) { return "alice"; });
      book = std::move(*read);
      EXPECT_EQ(told(book), now.told);
    }
  }
}

TEST(WireguardSessions, WhatWasBeforeTheFirstLookIsNobodys) {
  Book book;
  const auto told_at = [&](uint64_t when, uint64_t index, const std::vector<Peer>& peers) {
    look(book, {"first", index}, peers, {kEpoch + when, when},
         [](const std::string& key) { return key; });
    return told(book);
  };
  EXPECT_EQ(told_at(1000, 1,
                    {{"live", "192.0.2.7", "10.0.0.2", kEpoch + 900, 700, 600},
                     {"gone", "192.0.2.7", "10.0.0.2", kEpoch + 100, 800, 900}}),
            "in 900 live");
  EXPECT_EQ(told_at(1005, 1,
                    {{"gone", "192.0.2.7", "10.0.0.2", kEpoch + 1003, 810, 920},
                     {"new", "192.0.2.7", "10.0.0.2", kEpoch + 1004, 20, 30}}),
            "in 1003 gone, in 1004 new, out 900 live 0 s 0/0");
  EXPECT_EQ(told_at(1010, 0, {}), "out 1005 gone 2 s 10/20, out 1005 new 1 s 20/30");
}

// On a real server a client came, roamed, was away for two minutes, came again and was removed.
TEST(WireguardSessions, OfARealServer) {
  std::ifstream file(ZORV_SOURCE "/tests/data/wireguard/dump.txt");
  Book book;
  uint64_t when = 0;
  std::string dump;
  const auto take = [&] {
    if (const auto peers = read_dump(dump)) {
      look(book, {"b", 1}, *peers, {1795291720 + when, 1000 + when},
           [](const std::string& key) { return key.substr(0, 4); });
    }
    dump.clear();
  };
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with('#')) {
      take();
      when = std::strtoul(line.c_str() + std::min(line.rfind("(t="), line.size() - 3) + 3, nullptr,
                          10);
    } else {
      dump += line + "\n";
    }
  }
  take();
  ASSERT_EQ(book.pending.size(), 2U);
  const Event& out = book.pending.back();
  EXPECT_EQ(fmt::format("{} {} {} {} {}/{}", out.name, out.source_ip, out.vpn_ip, out.uptime,
                        out.received, out.sent),
            "dyrM 10.91.0.2 10.55.0.2 331 23804/22612");
}

TEST(WireguardDump, EndpointsAndAddresses) {
  const char* const kRows[][4] = {
      {"(none)", "(none)", "", ""},
      {"[2001:db8::7]:9", "10.0.0.2/32,fd00::2/128", "2001:db8::7", "10.0.0.2,fd00::2"},
      {"192.0.2.7:9", "192.168.0.0/24,fd00::/32", "192.0.2.7", "192.168.0.0/24"},
  };
  for (const auto& [endpoint, ranges, source_ip, vpn_ip] : kRows) {
    const auto peers = read_dump(
        fmt::format("p\tk\t1\toff\nkey\t(none)\t{}\t{}\t5\t6\t7\toff\n", endpoint, ranges));
    ASSERT_TRUE(peers && peers->size() == 1) << endpoint;
    const Peer& peer = peers->front();
    EXPECT_EQ(fmt::format("{} {} {} {} {} {}", peer.key, peer.source_ip, peer.vpn_ip,
                          peer.handshake, peer.received, peer.sent),
              fmt::format("key {} {} 5 6 7", source_ip, vpn_ip));
  }
  using namespace std::string_view_literals;
  for (const std::string_view text :
       {""sv, "\n"sv, "p\tk\t1\toff"sv, "p\tk\t1\n"sv, "p\tk\t1\toff\nkey\n"sv,
        "p\tk\t1\toff\nkey\t-\te:1\tr\t5\t6x\t7\toff\n"sv,
        "p\tk\t1\toff\nkey\t-\te:1\tr\t5\t9223372036854775808\t7\toff\n"sv,
        "p\tk\t1\toff\nk\0y\t-\te:1\tr\t5\t6\t7\toff\n"sv}) {
    EXPECT_FALSE(read_dump(text)) << text;
  }
}

TEST(WireguardNames, AreTheFilesThenTheCommentsThenTheKeys) {
  harness::write_file("/names", "# who\n\nA=  alice b\nB=\nC=\tcarol \r\n");
  harness::write_file(
      "/wg0.conf",
      "[Interface]\n# not a peer\nPublicKey = A=\n\n### alice's phone ##\n[Peer]\n"
      "PublicKey = A= # hers\n# dave\n\n[peer]\nAllowedIPs = ::/0\npublickey=D=\n"
      "[Peer]\nPublicKey = E=\n# frank\nAllowedIPs = 10.0.0.2/32\n[Peer]\nPublicKey = F=\n");
  PeerNames names("/names", "/wg0.conf");
  names.refresh();
  const char* const kRows[][2] = {{"A=", "alice b"}, {"B=", "B="}, {"C=", "carol"},
                                  {"D=", "dave"},    {"E=", "E="}, {"F=", "F="}};
  for (const auto& [key, name] : kRows) {
    EXPECT_EQ(names.name_of(key), name);
  }
}

TEST(WireguardBook, OfAnotherWatcherOrDamagedIsLeftAlone) {
  BookFile file("", "wg0");
  EXPECT_TRUE(file.lock() && !BookFile("", "wg0").lock());
  Book book;
  book.setup = {"first", 1};
  book.pending.push_back({true, "\xff\"\n", "192.0.2.7", "10.0.0.2", kEpoch + 5, 0, 0, 0});
  book.pending.push_back({false, "b", "192.0.2.7", "10.0.0.2", kEpoch + 5, 6, 7, 8});
  ASSERT_TRUE(file.write(book));
  std::optional<Book> read = file.read();
  ASSERT_TRUE(read);
  EXPECT_EQ(told(*read), "in 5 ?\"\n, out 5 b 6 s 7/8");
  harness::write_file("/wg0.json", "{\"looked\": 5}");
  EXPECT_EQ(file.read()->setup.boot, "");
  EXPECT_EQ(harness::read_file("/wg0.json.damaged"), "{\"looked\": 5}");
}

}  // namespace
}  // namespace wireguard
