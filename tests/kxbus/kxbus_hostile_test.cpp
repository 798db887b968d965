// Peers that break the rules, come in crowds, linger or have gone: what they cost the server, and
// everybody else; and servers that answer what no server should.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "harness/bus_peer.h"
#include "kxbus.h"

namespace {

using harness::bus_call;
using harness::Frame;
using harness::kAllSeals;
using harness::make_memfd;
using harness::RawSocket;

enum Flags : std::uint32_t { kBody = 1, kPassed = 2 };

int answer_to(const std::string& packet, const std::vector<int>& descriptors = {}) {
  const RawSocket client = RawSocket::connected();
  return client.send(packet, descriptors) ? client.status() : -1;
}

// A server in a process of its own, which is as it was when the test has ended.
class HostileClient : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(harness::eventually([] { return bus_call("echo", "") == KX_SUCCESS; }));
    resting_ = held();
  }
  void TearDown() override {
    EXPECT_EQ(bus_call("echo", ""), KX_SUCCESS);
    EXPECT_EQ(held(), resting_);
  }
  // The server's descriptors, when the last caller's have been closed.
  int held() const {
    int count = -1;
    EXPECT_TRUE(harness::eventually([&] {
      const int before = std::exchange(count, harness::open_descriptors(server_.pid()));
      return count == (resting_ >= 0 ? resting_ : before);
    })) << count
        << " descriptors instead of " << resting_;
    return count;
  }

  harness::Child server_{[] {
    kx_set_log([](const char*) {});
    return kx_start(kx_create(harness::kBusAddress, 4, 1, harness::bus_callback));
  }};
  int resting_ = -1;
};

TEST_F(HostileClient, WrongPacketsAreRefused) {
  const std::string good = Frame{.body = "body"}.bytes();
  ASSERT_EQ(answer_to(good), KX_SUCCESS);
  std::vector<std::string> wrong = {"", good + "x", Frame{.body = std::string(65537, 'x')}.bytes(),
                                    Frame{.body = std::string(150'000, 'x')}.bytes()};
  for (std::size_t cut = 1; cut < good.size(); ++cut) {
    wrong.push_back(good.substr(0, cut));
  }
  for (const std::string& method :
       {std::string(), std::string(256, 'm'), std::string("echo\0", 5)}) {
    wrong.push_back(Frame{.method = method}.bytes());
  }
  for (const std::uint8_t value : std::initializer_list<std::uint8_t>{0, 2, 255}) {
    wrong.push_back(Frame{.version = value}.bytes());
    wrong.push_back(Frame{.kind = value}.bytes());
    wrong.push_back(Frame{.magic = value}.bytes());
  }
  for (const int detail : {0, 3, 5, 0xFFFF}) {
    wrong.push_back(Frame{.detail = detail}.bytes());
  }
  for (const std::int64_t length :
       {std::int64_t{1}, std::int64_t{0xFFFFFFFF}, std::int64_t{0xFFFFFFFC}}) {
    wrong.push_back(Frame{.body_length = length}.bytes());
  }
  for (const std::uint32_t flags : {4U, 0x80000000U, 0xFFFFFFFFU}) {
    wrong.push_back(Frame{.flags = flags}.bytes());
  }
  for (const std::string& packet : wrong) {
    EXPECT_EQ(answer_to(packet), KX_IS_INVALID) << testing::PrintToString(packet.substr(0, 30));
  }
}

TEST_F(HostileClient, WrongDescriptorsAreRefusedAndClosed) {
  constexpr std::int64_t kGiga = 1 << 30;
  const std::string body(100'000, 'b');
  const int good = make_memfd(body, kAllSeals);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  struct Case {
    std::uint32_t flags;
    std::int64_t length;
    std::vector<int> descriptors;
    int status = KX_IS_INVALID;
  };
  std::vector<Case> cases = {
      {kBody, 100'000, {good}, KX_SUCCESS},
      {kPassed, 0, {ends[0]}, KX_SUCCESS},
      {kBody | kPassed, 100'000, {good, ends[0]}, KX_SUCCESS},
      {kBody, 100'000, {}},
      {kPassed, 0, {}},
      {kBody | kPassed, 100'000, {good}},
      {kBody, 100'000, {good, ends[0]}},
      {kBody, 100'000, std::vector<int>(253, good)},
      {0, 0, {good}},
      {0, 0, std::vector<int>(3, good)},
      {0, 0, std::vector<int>(253, good)},
  };
  for (const std::int64_t length :
       {std::int64_t{0}, std::int64_t{99'999}, std::int64_t{100'001}, kGiga}) {
    cases.push_back({kBody, length, {good}});
  }
  for (const std::int64_t length : {kGiga, kGiga + 1}) {  // the largest body, and one more
    cases.push_back({kBody,
                     length,
                     {memfd_create("sparse", MFD_CLOEXEC | MFD_ALLOW_SEALING)},
                     length == kGiga ? KX_SUCCESS : KX_IS_INVALID});
    ASSERT_EQ(ftruncate(cases.back().descriptors[0], length), 0);
    fcntl(cases.back().descriptors[0], F_ADD_SEALS, static_cast<int>(kAllSeals));
  }
  if (const int huge = memfd_create("huge", MFD_ALLOW_SEALING | MFD_HUGETLB);
      huge >= 0 && ftruncate(huge, 2 << 20) == 0 &&
      fcntl(huge, F_ADD_SEALS, static_cast<int>(kAllSeals)) == 0) {
    cases.push_back({kBody, 2 << 20, {huge}});
  }
  for (unsigned seal = 1; seal <= kAllSeals; seal <<= 1) {
    cases.push_back({kBody, 100'000, {make_memfd(body, kAllSeals & ~seal)}});
  }
  for (const char* path : {"/", "/dev/zero", "/proc/self/exe"}) {
    cases.push_back({kBody, 100'000, {open(path, O_RDONLY | O_CLOEXEC)}});
  }
  for (const Case& c : cases) {
    const std::string packet = Frame{.flags = c.flags, .body_length = c.length}.bytes();
    EXPECT_EQ(answer_to(packet, c.descriptors), c.status)
        << c.flags << " " << c.length << " " << c.descriptors.size();
  }
  EXPECT_EQ(answer_to("", {good, good, good}), KX_IS_INVALID);
}

TEST_F(HostileClient, OnesThatHangUpOrSayMoreCostNothing) {
  {
    const RawSocket mute = RawSocket::connected();
    const RawSocket half_closed = RawSocket::connected();
    shutdown(half_closed.get(), SHUT_WR);
    EXPECT_EQ(half_closed.status(), KX_IS_INVALID);
    const RawSocket deaf = RawSocket::connected();
    shutdown(deaf.get(), SHUT_RD);
    deaf.send(Frame{}.bytes());
    EXPECT_EQ(bus_call("echo", ""), KX_SUCCESS) << "nobody waits for them";
  }
  kill(server_.pid(), SIGSTOP);  // so that all of it is there when the server looks
  std::vector<RawSocket> twice;
  for (int i = 0; i < 20; ++i) {
    RawSocket::connected().send(Frame{.method = "mark"}.bytes());
    const RawSocket empty = RawSocket::connected();
    empty.send("", {STDERR_FILENO, STDERR_FILENO});
    twice.push_back(RawSocket::connected());
    twice.back().send(Frame{.method = "mark"}.bytes());
    twice.back().send(Frame{.method = "mark"}.bytes());
  }
  kill(server_.pid(), SIGCONT);
  for (const RawSocket& client : twice) {
    EXPECT_EQ(client.status(), KX_IS_INVALID);
  }
  std::string marks;
  EXPECT_EQ(bus_call("marks", "", &marks), KX_SUCCESS);
  EXPECT_EQ(marks, "0") << "none of the requests was served";
}

TEST_F(HostileClient, ACrowdOfMuteOnesIsRefusedAndEverybodyElseServed) {
  std::vector<RawSocket> mute;
  for (int i = 0; i < 400; ++i) {
    mute.push_back(RawSocket::connected());
    ASSERT_GE(mute.back().get(), 0);
  }
  EXPECT_TRUE(mute.back().send(Frame{}.bytes()));
  EXPECT_EQ(mute.back().status(), KX_SUCCESS) << "one of the latest may still ask";
  std::vector<std::thread> callers;
  std::atomic<int> served{0};
  for (int i = 0; i < 200; ++i) {
    callers.emplace_back([&served] { served += bus_call("echo", "x") == KX_SUCCESS ? 1 : 0; });
  }
  for (std::thread& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(served, 200);
  EXPECT_LE(harness::open_descriptors(server_.pid()), resting_ + 257);
  std::ptrdiff_t told = 0;
  for (const RawSocket& client : mute) {
    char answer[16];
    told += recv(client.get(), answer, sizeof answer, MSG_DONTWAIT) == sizeof answer ? 1 : 0;
  }
  EXPECT_GE(told, 399 - 256) << "those who were silent for longest";
  EXPECT_EQ(mute[mute.size() - 2].status(), KX_IS_BUSY) << "its time has passed";
}

// The last close of a socket that was told to linger waits for as long; here that would be the
// server's.
TEST_F(HostileClient, LingeringSocketsDoNotStopTheServer) {
  const RawSocket listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in name{};
  socklen_t length = sizeof name;
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener.get(), reinterpret_cast<sockaddr*>(&name), length) != 0) {
    GTEST_SKIP() << "no loopback network here";
  }
  listen(listener.get(), 8);
  getsockname(listener.get(), reinterpret_cast<sockaddr*>(&name), &length);
  const std::pair<std::string, int> kCases[] = {
      {Frame{}.bytes(), KX_IS_INVALID},
      {Frame{.magic = 0}.bytes(), KX_IS_INVALID},
      {Frame{.flags = kBody, .body_length = 1}.bytes(), KX_IS_INVALID},
      {Frame{.flags = kPassed}.bytes(), KX_SUCCESS},
      {"", KX_IS_INVALID}};
  std::vector<RawSocket> clients;
  kill(server_.pid(), SIGSTOP);  // once: a signal would also end the waiting
  for (const auto& [packet, status] : kCases) {
    const RawSocket lingering(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(lingering.get(), reinterpret_cast<sockaddr*>(&name), length), 0);
    const linger a_minute{1, 60};
    setsockopt(lingering.get(), SOL_SOCKET, SO_LINGER, &a_minute, sizeof a_minute);
    const std::string unsent(1 << 20, 'x');
    while (send(lingering.get(), unsent.data(), unsent.size(), MSG_DONTWAIT) > 0) {
    }
    clients.push_back(RawSocket::connected());
    ASSERT_TRUE(clients.back().send(packet, {lingering.get()}));
  }
  kill(server_.pid(), SIGCONT);
  for (std::size_t i = 0; i < clients.size(); ++i) {
    EXPECT_EQ(clients[i].status(), kCases[i].second) << i;
  }
}

// Descriptors run out, once with the spare one at hand and once without. Callers are told or wait;
// the process does not spin; with descriptors back it serves again.
TEST_F(HostileClient, RunningOutOfDescriptorsIsNotABusyLoop) {
  rlimit usual{};
  ASSERT_EQ(prlimit(server_.pid(), RLIMIT_NOFILE, nullptr, &usual), 0);
  const auto lowest = static_cast<rlim_t>(harness::lowest_free_descriptor(server_.pid()));
  for (const auto& [limit, status] :
       {std::pair<rlim_t, int>{lowest, KX_IS_BUSY}, {rlim_t{0}, KX_TIMEOUT}}) {
    const rlimit scarce{limit, usual.rlim_max};
    ASSERT_EQ(prlimit(server_.pid(), RLIMIT_NOFILE, &scarce, nullptr), 0);
    const double begin = harness::cpu_seconds(server_.pid());
    for (int round = 0; round < 2; ++round) {
      EXPECT_EQ(bus_call("echo", "", nullptr, 1), status);
    }
    EXPECT_LT(harness::cpu_seconds(server_.pid()) - begin, 0.5);
    ASSERT_EQ(prlimit(server_.pid(), RLIMIT_NOFILE, &usual, nullptr), 0);
    EXPECT_EQ(bus_call("echo", ""), KX_SUCCESS);
    EXPECT_EQ(held(), resting_);
  }
}

// The request was executed, so "busy", which may be tried again, would be the wrong word for a
// reply whose descriptor finds no place at the caller.
TEST_F(HostileClient, OneWithoutADescriptorForTheReplyHasFailed) {
  std::vector<RawSocket> taken;
  const rlimit limit{512, 512};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  do {
    taken.emplace_back(dup(STDERR_FILENO));
  } while (taken.back().get() >= 0);
  taken.resize(taken.size() - 3);  // places for the connection and the request
  EXPECT_EQ(bus_call("echo", std::string(70000, 'b')), KX_IO_FAILURE);
}

TEST(HostileServer, AnswersNeverReachTheCallerUnchecked) {
  const std::string body(70000, 'b');
  const Frame success{.kind = 2, .detail = 0, .method = ""};
  const Frame shared{.kind = 2, .detail = 0, .flags = kBody, .body_length = 70000, .method = ""};
  const auto status_only = [](int status, const char* content = "") {
    return Frame{.kind = 2, .detail = status, .body = content, .method = ""}.bytes();
  };
  const int good = make_memfd(body, kAllSeals);
  const struct {
    const char* what;
    std::string bytes;
    std::vector<int> descriptors{};
    int status = KX_IO_FAILURE;
  } kCases[] = {
      {"sealed memory", shared.bytes(), {good}, KX_SUCCESS},
      {"a status", status_only(KX_IS_PAUSED), {}, KX_IS_PAUSED},
      {"the last status", status_only(KX_IS_INVALID), {}, KX_IS_INVALID},
      {"an unknown status", status_only(KX_IS_INVALID + 1)},
      {"a failure with a body", status_only(KX_IS_PAUSED, "x")},
      {"a descriptor passed back",
       Frame{.kind = 2, .detail = 0, .flags = kPassed, .method = ""}.bytes(),
       {good}},
      {"unsealed memory", shared.bytes(), {make_memfd(body, 0)}},
      {"memory that may shrink", shared.bytes(), {make_memfd(body, kAllSeals & ~F_SEAL_SHRINK)}},
      {"short memory", shared.bytes(), {make_memfd(body.substr(1), kAllSeals)}},
      {"memory not sent", shared.bytes()},
      {"something else", shared.bytes(), {STDERR_FILENO}},
      {"253 descriptors", success.bytes(), std::vector<int>(253, good)},
      {"an unannounced descriptor", success.bytes(), {good}},
      {"nothing", ""},
      {"a cut header", success.bytes().substr(0, 9)},
      {"a lying length", Frame{.kind = 2, .detail = 0, .body_length = 5000, .method = ""}.bytes()},
      {"too much", std::string(100000, 'K')},
      {"a request", Frame{}.bytes()},
  };
  const int before = harness::open_descriptors();
  for (const std::size_t size : {10u, 100000u}) {
    for (const auto& c : kCases) {
      SCOPED_TRACE(c.what);
      const RawSocket listener = RawSocket::listening();
      std::thread server([&] {
        const RawSocket caller = listener.accept();
        caller.receive();
        if (!c.bytes.empty()) {
          caller.send(c.bytes, c.descriptors);
        }
      });
      std::string reply;
      EXPECT_EQ(bus_call("m", std::string(size, 'q'), &reply), c.status);
      EXPECT_EQ(reply, c.status == KX_SUCCESS ? body : "");
      server.join();
    }
  }
  EXPECT_EQ(harness::open_descriptors(), before);
}

// It may also refuse before it was asked.
TEST(HostileServer, AnEarlyAnswerCounts) {
  const RawSocket listener = RawSocket::listening();
  std::thread server([&] {
    const RawSocket caller = listener.accept();
    shutdown(caller.get(), SHUT_RD);
    caller.receive();
    caller.send(Frame{.kind = 2, .detail = KX_IS_REJECT, .method = ""}.bytes());
  });
  EXPECT_EQ(bus_call("m", ""), KX_IS_REJECT);
  server.join();
}

}  // namespace
