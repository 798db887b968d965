// Peers that break the rules, come in crowds or have gone; signals and the end of serving.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <ctime>
#include <deque>

#include "harness/bus_peer.h"
#include "harness/process.h"

namespace {

using harness::bus_call;
using harness::Frame;
using harness::RawSocket;

enum Flags : std::uint32_t { kBody = 1, kPassed = 2 };
constexpr unsigned kAllSeals = 0xF;
const std::string kGood = Frame{}.bytes();
const std::string kStop = Frame{.method = "stop"}.bytes();

kx_server* server = nullptr;
const RawSocket* woken = nullptr;
int served = 0;
int delivered = 0;  // the sum of the signals' numbers

void callback(const char* name, kx_io* io, int fd) {
  const os::Descriptor passed(fd);
  const std::string method = name;
  ++served;
  if (method == "stop") {
    kx_stop(server);
  } else if (method == "signal") {
    raise(SIGTERM);
  } else if (method == "wake") {
    woken->send(kGood);
  }
  std::size_t length = 0;
  if (const auto* bytes = static_cast<const char*>(kx_io_read(io, &length))) {
    const std::string behind(bytes + length, 8192 - std::min<std::size_t>(length, 8191));
    EXPECT_EQ(behind, std::string(behind.size(), '\0')) << "left by other requests or replies";
  }
  kx_io_write(io, std::string(9000, 'r').data(), 9000);
  if (delivered == 0) {
    kx_reply(io);
  }
}

int kept_open = 0;  // by the test

// Memory as peers send it: the rest of its last page is not zero.
int make_memfd(off_t size, unsigned seals, unsigned flags = 0) {
  const int made = memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING | flags);
  kept_open += made >= 0 ? 1 : 0;
  const bool sized = ftruncate(made, size) == 0;
  void* page = mmap(nullptr, 4096, PROT_WRITE, MAP_SHARED, made, (size - 1) / 4096 * 4096);
  if (page != MAP_FAILED) {
    memset(static_cast<char*>(page) + size % 4096, 'x', static_cast<size_t>(4096 - size % 4096));
    munmap(page, 4096);
  }
  return sized && fcntl(made, F_ADD_SEALS, seals) == 0 ? made : -1;
}

// Clients queue up while nobody serves; then all are served in this thread, in order, until one
// asks for the end.
class Hostile : public testing::Test {
 protected:
  void SetUp() override {
    alarm(10);
    for (const int number : {SIGTERM, SIGUSR1}) {
      kx_signal(number, [](int arrived) {
        delivered += arrived;
        kx_stop(server);
      });
    }
    before_ = harness::open_descriptors();
    server = kx_create(harness::kBusAddress, 128, 1, callback);
  }
  const RawSocket& client(int expected) {
    expected_.push_back(expected);
    return clients_.emplace_back(RawSocket::connected());
  }
  const RawSocket& ask(const std::string& packet, int expected = KX_IS_INVALID,
                       const std::vector<int>& descriptors = {}) {
    const RawSocket& made = client(expected);
    EXPECT_TRUE(made.send(packet, descriptors));
    return made;
  }
  void serve() {
    EXPECT_EQ(kx_start(server), KX_SUCCESS);
    for (std::size_t i = 0; i < clients_.size(); ++i) {
      EXPECT_EQ(clients_[i].status(), expected_[i]) << "client " << i;
    }
    EXPECT_EQ(kx_start(server), KX_IS_PAUSED);
    EXPECT_EQ(bus_call("echo", ""), KX_NOT_READY);
    kx_free(server);
    clients_.clear();
    expected_.clear();
    EXPECT_EQ(harness::open_descriptors(), before_ + kept_open);
  }

  std::deque<RawSocket> clients_;
  std::vector<int> expected_;
  int before_ = 0;
};

TEST_F(Hostile, WrongPacketsAndDescriptorsAreRefusedAndClosed) {
  const std::string body = Frame{.body = "body"}.bytes();
  for (const std::size_t length : {std::size_t{0}, std::size_t{15}, body.size() - 1}) {
    ask(body.substr(0, length));
  }
  ask(body + "x");
  for (const Frame& wrong :
       {Frame{.magic = 0x5542584A}, Frame{.version = 2}, Frame{.kind = 2}, Frame{.detail = 3},
        Frame{.detail = 5}, Frame{.flags = 4}, Frame{.body_length = 1}, Frame{.method = ""},
        Frame{.body_length = 0xFFFFFFFC}, Frame{.body = std::string(65537, 'x')},
        Frame{.method = std::string(256, 'm')}, Frame{.method = std::string("echo\0", 5)}}) {
    ask(wrong.bytes());
  }
  for (const std::size_t size : {1u, 7192u, 65536u, 12u, 3u}) {
    ask(Frame{.body = std::string(size, 'q')}.bytes(), KX_SUCCESS);
  }
  constexpr std::int64_t kGiga = 1 << 30;
  const int good = make_memfd(100'000, kAllSeals);
  const auto row = [this](unsigned flags, std::int64_t length, const std::vector<int>& passed,
                          int expected = KX_IS_INVALID) {
    ask(Frame{.flags = flags, .body_length = length}.bytes(), expected, passed);
  };
  row(kBody | kPassed, 100'000, {good, STDERR_FILENO}, KX_SUCCESS);
  row(kBody, kGiga, {make_memfd(kGiga, kAllSeals)}, KX_SUCCESS);
  row(kBody, kGiga + 1, {make_memfd(kGiga + 1, kAllSeals)});
  row(kBody, 99'999, {good});
  row(kBody, 100'000, {good, STDERR_FILENO});
  row(kBody, 100'000, {STDERR_FILENO});
  // The last close of a socket that lingers waits for as long; here that would be the server's.
  int lingering[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, lingering), 0);
  linger setting{1, 60};
  socklen_t length = sizeof setting;
  kept_open += 2;
  for (const int end : lingering) {
    setsockopt(end, SOL_SOCKET, SO_LINGER, &setting, length);
  }
  row(0, 0, {lingering[0]});
  row(kPassed, 0, {lingering[1]}, KX_SUCCESS);
  row(0, 0, std::vector<int>(253, good));
  for (unsigned seal = 1; seal <= kAllSeals; seal <<= 1) {
    row(kBody, 100'000, {make_memfd(100'000, kAllSeals & ~seal)});
  }
  if (const int huge = make_memfd(2 << 20, kAllSeals, MFD_HUGETLB); huge >= 0) {
    row(kBody, 2 << 20, {huge});
  }
  ask(kStop, KX_SUCCESS);
  serve();
  for (const int end : lingering) {
    getsockopt(end, SOL_SOCKET, SO_LINGER, &setting, &length);
    EXPECT_EQ(setting.l_onoff, 0);
  }
}

TEST_F(Hostile, OnesThatHangUpOrSayMoreAreNotServed) {
  for (int i = 0; i < 20; ++i) {
    RawSocket::connected().send(kGood);
    ask(kGood).send(kGood);
  }
  shutdown(client(KX_IS_INVALID).get(), SHUT_WR);
  ask(kStop, KX_SUCCESS);
  serve();
  EXPECT_EQ(served, 1);
}

// Those are told who were silent for longest; one of the latest asks in the end.
TEST_F(Hostile, ACrowdOfMuteOnesIsRefusedAndEverybodyElseServed) {
  constexpr int kMute = 300;
  for (int i = 0; i < kMute - 1; ++i) {
    client(i < kMute - 256 ? KX_IS_BUSY : KX_IS_PAUSED);
  }
  woken = &client(KX_SUCCESS);
  for (int i = 0; i < 100; ++i) {
    ask(kGood, KX_SUCCESS);
  }
  ask(Frame{.method = "wake"}.bytes(), KX_SUCCESS);
  ask(kStop, KX_SUCCESS);
  serve();
}

using Signal = Hostile;

TEST_F(Signal, StopsTheServerAfterTheReplyAndEverybodyIsTold) {
  for (int i = 0; i < 20; ++i) {
    client(KX_IS_PAUSED);
    ask(Frame{.flags = kPassed}.bytes(), i < 10 ? KX_SUCCESS : KX_IS_PAUSED, {STDERR_FILENO});
    if (i == 9) {
      ask(Frame{.method = "signal"}.bytes(), KX_SUCCESS);
    }
  }
  serve();
}

TEST_F(Signal, OneThatCameEarlyIsDeliveredOnceAndNoneBreaksASystemCall) {
  for (const int number : {SIGUSR1, SIGTERM}) {
    raise(number);
    EXPECT_EQ(delivered, 0);
    client(KX_IS_PAUSED);
    serve();
    EXPECT_EQ(std::exchange(delivered, 0), number);
    SetUp();
  }
  struct sigaction action {};
  sigaction(SIGTERM, nullptr, &action);
  EXPECT_NE(action.sa_flags & SA_RESTART, 0);
  kx_stop(server);  // comes early, too
  serve();
}

TEST(HostileClient, IsToldWhenItWasSilentForItsTime) {
  const harness::BusServer serving;
  EXPECT_EQ(RawSocket::connected().status(), KX_IS_BUSY);
}

// Callers are told, with the spare descriptor at hand, or wait; the process does not spin.
TEST(HostileClient, IsToldWhenDescriptorsRunOut) {
  kx_set_log([](const char*) {});
  server = kx_create(harness::kBusAddress, 4, 1, harness::bus_callback);
  kx_signal(SIGTERM, [](int) { kx_stop(server); });
  harness::Child serving(
      [] { return kx_start(server) + (clock() > CLOCKS_PER_SEC / 2 ? 100 : 0); });
  const int lowest = os::Descriptor(dup(STDERR_FILENO)).get();
  rlimit usual{};
  ASSERT_EQ(prlimit(serving.pid(), RLIMIT_NOFILE, nullptr, &usual), 0);
  for (const auto& [limit, status] : {std::pair(lowest, KX_IS_BUSY), {0, KX_TIMEOUT}}) {
    const rlimit scarce{static_cast<rlim_t>(limit), usual.rlim_max};
    ASSERT_EQ(prlimit(serving.pid(), RLIMIT_NOFILE, &scarce, nullptr), 0);
    EXPECT_EQ(bus_call("echo", "", nullptr, 1), status);
    EXPECT_EQ(bus_call("echo", "", nullptr, 1), status);
    ASSERT_EQ(prlimit(serving.pid(), RLIMIT_NOFILE, &usual, nullptr), 0);
    EXPECT_EQ(bus_call("echo", ""), KX_SUCCESS);
  }
  EXPECT_EQ(serving.stop(), KX_SUCCESS) << "100: it has been spinning";
}

TEST(HostileServer, AnswersNeverReachTheCallerUnchecked) {
  const std::string body(70000, '\0');
  const auto reply = [](int status, std::uint32_t flags = 0, std::int64_t length = 0) {
    return Frame{.kind = 2, .detail = status, .flags = flags, .body_length = length, .method = ""}
        .bytes();
  };
  const std::string shared = reply(0, kBody, 70000);
  const int good = make_memfd(70000, kAllSeals);
  const struct {
    std::string bytes;
    std::vector<int> descriptors{};
    int status = KX_IO_FAILURE;
  } kRows[] = {{shared, {good}, KX_SUCCESS},
               {reply(KX_IS_PAUSED), {}, KX_IS_PAUSED},
               {reply(KX_IS_INVALID), {}, KX_IS_INVALID},
               {reply(KX_IS_INVALID + 1)},
               {reply(KX_IS_PAUSED, 0, 1) + "x"},
               {shared, {make_memfd(70000, kAllSeals & ~F_SEAL_SHRINK)}},
               {reply(0), std::vector<int>(253, good)},
               {std::string(100000, 'K')},
               {kGood}};
  const int before = harness::open_descriptors();
  for (const auto& row : kRows) {
    SCOPED_TRACE(&row - kRows);
    const RawSocket listener = RawSocket::listening();
    std::thread answering([&] {
      const RawSocket caller = listener.accept();
      caller.receive();
      caller.send(row.bytes, row.descriptors);
    });
    std::string answer;
    EXPECT_EQ(bus_call("m", "request", &answer), row.status);
    EXPECT_EQ(answer, row.status == KX_SUCCESS ? body : "");
    answering.join();
  }
  EXPECT_EQ(harness::open_descriptors(), before);
}

}  // namespace
