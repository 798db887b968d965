// Callers that break the bus's rules, come in crowds, or wait for nothing: what they cost the
// daemon, and everybody else.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <random>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/faults.h"
#include "kxbus.h"
#include "zorv_api_db.h"
#include "zorv_api_mobile.h"

namespace {

using harness::Frame;
using harness::RawSocket;
using std::chrono::steady_clock;

constexpr const char* kMethod = "zorv_mobile_gen_zorv_uuid";
constexpr int kClosed = -1;
enum Flags : uint32_t { kBody = 1, kPassed = 2 };

int call_once(int timeout_s = 5) {
  return harness::bus_call(kMethod, "", nullptr, timeout_s, -1, kZorvdAddress);
}

RawSocket connected() {
  return RawSocket::connected(kZorvdAddress);
}

Frame request(const std::string& body = "") {
  Frame frame;
  frame.method = kMethod;
  frame.body = body;
  return frame;
}

int answer_to(const std::string& packet, const std::vector<int>& descriptors = {}) {
  const RawSocket client = connected();
  return client.send(packet, descriptors) ? client.status() : kClosed;
}

class HostileClient : public testing::Test {
 protected:
  void SetUp() override {
    harness::install_notify();
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    ASSERT_EQ(call_once(), KX_SUCCESS);
    resting_ = harness::open_descriptors(pid());
  }
  void TearDown() override {
    EXPECT_EQ(call_once(), KX_SUCCESS) << "the daemon answers as before";
    expect_rest();
    EXPECT_EQ(daemon_.stop(), 0);
  }
  pid_t pid() { return daemon_.process().pid(); }
  // The daemon holds no more descriptors than at first, when the last caller's may not have been
  // closed yet.
  void expect_rest() {
    EXPECT_TRUE(harness::eventually([this] {
      return harness::open_descriptors(pid()) <= resting_;
    })) << harness::open_descriptors(pid())
        << " descriptors instead of " << resting_;
  }

  harness::Daemon daemon_;
  int resting_ = 0;
};

// Every wrong packet once: each is refused, and none of them with what it asked for.
void send_wrong_packets() {
  const std::string good = request().bytes();
  ASSERT_EQ(answer_to(good), KX_SUCCESS);
  EXPECT_EQ(answer_to(""), KX_IS_INVALID) << "reads as the end of the connection";
  for (size_t cut = 1; cut < good.size(); ++cut) {
    EXPECT_EQ(answer_to(good.substr(0, cut)), KX_IS_INVALID) << cut;
  }
  EXPECT_EQ(answer_to(good + "x"), KX_IS_INVALID);
  EXPECT_EQ(answer_to(request(std::string(64 * 1024 + 1, 'x')).bytes()), KX_IS_INVALID);
  EXPECT_EQ(answer_to(request(std::string(150'000, 'x')).bytes()), KX_IS_INVALID);

  std::vector<Frame> wrong;
  const auto changed = [&wrong]() -> Frame& { return wrong.emplace_back(request()); };
  changed().method.clear();
  changed().method.assign(256, 'm');
  changed().method += '\0';  // behind a good one
  ++changed().magic;
  for (const uint8_t value : std::initializer_list<uint8_t>{0, 2, 3, 255}) {
    changed().version = value;
    changed().kind = value;
  }
  const int length = static_cast<int>(strlen(kMethod));
  for (const int detail : {0, 1, length - 1, length + 1, 0xffff}) {
    changed().detail = detail;
  }
  for (const int64_t body :
       std::initializer_list<int64_t>{1, 0x7fffffff, 0xffffffff, 0x100000000 - length}) {
    changed().body_length = body;
  }
  for (const uint32_t flags : {4U, 8U, 0x80000000U, 0xffffffffU}) {
    changed().flags = flags;
  }
  for (size_t i = 0; i < wrong.size(); ++i) {
    EXPECT_EQ(answer_to(wrong[i].bytes()), KX_IS_INVALID) << i;
  }
}

// Descriptors that are missing, too many, or not what they should be.
void send_wrong_descriptors() {
  const std::string body(100'000, 'b');
  const auto packet = [&](uint32_t flags, int64_t length) {
    Frame frame = request();
    frame.flags = flags;
    frame.body_length = length;
    return frame.bytes();
  };
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const int good = harness::make_memfd(body, harness::kAllSeals);
  std::vector<int> wrong{ends[0], ends[1], open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC),
                         open("/dev/zero", O_RDWR | O_CLOEXEC),
                         open("/proc/self/exe", O_RDONLY | O_CLOEXEC)};
  for (unsigned seal = 1; seal <= harness::kAllSeals; seal <<= 1) {
    wrong.push_back(harness::make_memfd(body, harness::kAllSeals & ~seal));
  }

  ASSERT_EQ(answer_to(packet(kBody, 100'000), {good}), KX_SUCCESS);
  ASSERT_EQ(answer_to(packet(kPassed, 0), {ends[0]}), KX_SUCCESS) << "passed and not wanted";
  EXPECT_EQ(answer_to(packet(kBody, 100'000)), KX_IS_INVALID);
  EXPECT_EQ(answer_to(packet(kPassed, 0)), KX_IS_INVALID);
  for (const size_t count : {1, 2, 3, 253}) {
    EXPECT_EQ(answer_to(packet(0, 0), std::vector<int>(count, good)), KX_IS_INVALID) << count;
    EXPECT_EQ(answer_to("", std::vector<int>(count, good)), KX_IS_INVALID) << count;
  }
  EXPECT_EQ(answer_to(packet(kBody | kPassed, 100'000), {good}), KX_IS_INVALID);
  EXPECT_EQ(answer_to(packet(kBody, 100'000), {good, ends[0]}), KX_IS_INVALID);
  EXPECT_EQ(answer_to(packet(kBody, 100'000), std::vector<int>(253, good)), KX_IS_INVALID);
  for (const int64_t length :
       std::initializer_list<int64_t>{0, 1, 99'999, 100'001, 1 << 30, (1 << 30) + 1, 0xffffffff}) {
    EXPECT_EQ(answer_to(packet(kBody, length), {good}), KX_IS_INVALID) << length;
  }
  for (const int64_t length : {1 << 30, (1 << 30) + 1}) {  // the largest body, and one more
    const int sparse = memfd_create("sparse", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    ASSERT_EQ(ftruncate(sparse, length), 0);
    ASSERT_EQ(fcntl(sparse, F_ADD_SEALS, static_cast<int>(harness::kAllSeals)), 0);
    EXPECT_EQ(answer_to(packet(kBody, length), {sparse}),
              length == 1 << 30 ? KX_SUCCESS : KX_IS_INVALID);
    close(sparse);
  }
  for (const int each : wrong) {
    EXPECT_EQ(answer_to(packet(kBody, 100'000), {each}), KX_IS_INVALID) << each;
    close(each);
  }
  close(good);
}

// Packets that are nearly right. Whatever they are, there is an answer or an end.
void send_random_packets(unsigned seed, int count) {
  std::minstd_rand random(seed);
  const auto any = [&random](size_t below) { return static_cast<size_t>(random()) % below; };
  for (int i = 0; i < count; ++i) {
    std::string packet = request(std::string(any(300), 'b')).bytes();
    for (size_t changes = any(4) + 1; changes > 0; --changes) {
      packet[any(any(2) == 0 ? 16 : packet.size())] = static_cast<char>(any(256));
    }
    packet.resize(any(8) == 0 ? any(packet.size()) + 1 : packet.size());
    const int status = answer_to(packet, std::vector<int>(any(4) * any(2), STDERR_FILENO));
    EXPECT_TRUE(status == KX_SUCCESS || status == KX_IS_INVALID)
        << seed << " " << i << " " << status;
  }
}

// Callers that do not do what callers do after, or instead of, their request.
void misbehave() {
  {
    const RawSocket mute = connected();
    const RawSocket half_closed = connected();
    shutdown(half_closed.get(), SHUT_WR);
    EXPECT_EQ(half_closed.status(), KX_IS_INVALID);
    const RawSocket deaf = connected();
    shutdown(deaf.get(), SHUT_RD);
    deaf.send(request().bytes());
    EXPECT_EQ(call_once(), KX_SUCCESS) << "nobody waits for them";
  }
  Frame second;
  second.method = "db_conn_server_log_clean";
  for (int i = 0; i < 50; ++i) {
    connected().send(request().bytes());  // and gone
    const RawSocket empty = connected();
    empty.send("");
    empty.send("", {STDERR_FILENO, STDERR_FILENO});
    const RawSocket twice = connected();
    twice.send(request().bytes());
    twice.send(second.bytes());
    const int status = twice.status();  // according to which came sooner, the second or the answer
    EXPECT_TRUE(status == KX_SUCCESS || status == KX_IS_INVALID || status == kClosed) << status;
  }
  EXPECT_EQ(call_once(), KX_SUCCESS);
}

TEST_F(HostileClient, WrongPacketsAreRefusedAndCostNothing) {
  const auto attack = [](unsigned seed) {
    send_wrong_packets();
    send_wrong_descriptors();
    send_random_packets(seed, 200);
    misbehave();
  };
  attack(1);
  expect_rest();
  const long resident = harness::resident_kilobytes(pid());
  for (unsigned seed = 2; seed < 6; ++seed) {
    attack(seed);
    expect_rest();
  }
  if (!harness::kSanitized) {
    EXPECT_LT(harness::resident_kilobytes(pid()), resident + 512) << "kB, after " << resident;
  }
  EXPECT_FALSE(harness::log_holds("db_conn_server_clean_handler")) << "a second packet is not read";
}

TEST_F(HostileClient, AThousandMuteCallersGiveWay) {
  const long resident = harness::resident_kilobytes(pid());
  std::vector<RawSocket> mute;
  for (int i = 0; i < 1000; ++i) {
    mute.push_back(connected());
    ASSERT_GE(mute.back().get(), 0);
  }
  EXPECT_EQ(call_once(), KX_SUCCESS) << "whoever speaks is served among them";
  EXPECT_LE(harness::open_descriptors(pid()), resting_ + 257);
  int busy = 0;
  for (const RawSocket& client : mute) {
    char answer[16];
    busy += recv(client.get(), answer, sizeof answer, MSG_DONTWAIT) == sizeof answer;
  }
  EXPECT_GE(busy, 1000 - 257) << "those who were silent for longest were told";
  // One of the latest has not been given up, and may still ask.
  EXPECT_TRUE(mute.back().send(request().bytes()));
  EXPECT_EQ(mute.back().status(), KX_SUCCESS);
  EXPECT_EQ(mute[mute.size() - 2].status(), KX_IS_BUSY) << "its time has passed";
  mute.clear();
  expect_rest();
  if (!harness::kSanitized) {
    EXPECT_LT(harness::resident_kilobytes(pid()), resident + 512);
  }
}

TEST_F(HostileClient, TwoHundredCallersAtOnceAreAllServed) {
  // ZORV_TEST_SECONDS=10 for the long form.
  const char* seconds = getenv("ZORV_TEST_SECONDS");
  const auto end =
      steady_clock::now() + std::chrono::seconds(seconds != nullptr ? atoi(seconds) : 2);
  std::atomic<unsigned> answered{0};
  std::atomic<unsigned> failed{0};
  const auto use = [&] {
    do {
      zorv_mobile_gen_uuid_data_set kind{1};
      zorv_mobile_gen_uuid_data_get uuid{};
      zorv_mobile_gen_uuid_data_get* get = &uuid;
      zorv_mobile_gen_zorv_uuid(&kind, &get);
      ++(uuid.zorv_uuid[0] != '\0' ? answered : failed);
    } while (steady_clock::now() < end);
  };
  std::vector<std::thread> callers;
  for (int i = 0; i < 200; ++i) {
    callers.emplace_back(use);
  }
  for (std::thread& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(failed, 0U) << "of " << answered + failed;
  EXPECT_GE(answered, 200U);
  RecordProperty("calls", static_cast<int>(answered));
}

TEST_F(HostileClient, AFullBacklogIsBusyAtTheDeadline) {
  daemon_.process().send(SIGSTOP);
  std::vector<RawSocket> waiting;
  for (int i = 0; i < 129; ++i) {  // the backlog, and the one that it lets in beyond
    waiting.push_back(connected());
    ASSERT_GE(waiting.back().get(), 0);
  }
  const auto start = steady_clock::now();
  EXPECT_EQ(call_once(1), KX_IS_BUSY);
  EXPECT_GE(steady_clock::now() - start, std::chrono::seconds(1)) << "not before the deadline";

  // A caller that waits for room gets it as soon as the daemon serves again.
  std::thread late([] { EXPECT_EQ(call_once(5), KX_SUCCESS); });
  waiting.clear();
  daemon_.process().send(SIGCONT);
  late.join();
}

}  // namespace
