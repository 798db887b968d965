// The N-th call of a kind fails, for every N that a request reaches: in the daemon, and in its
// caller. Whatever fails, the caller gets a status that tells the truth, nothing stays open, and
// the next request is served.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <fstream>
#include <set>

#include "harness/bus_peer.h"
#include "harness/faults.h"
#include "harness/records.h"
#include "zorv_calls.h"

namespace {

using harness::bytes_of;
using harness::Call;
using zorv_api::new_buffer;

constexpr int kRows = 40;  // more than a packet holds
constexpr int kMostCalls = 2000;

// A call as a caller makes it, with nothing of the test's own between its steps. An answer is whole
// when it is one.
int call(const char* method, const std::string& body) {
  const kx_io_owner io = new_buffer();
  const int status = zorv_api::call(io, method, body.data(), body.size());
  size_t length = 0;
  const void* const reply = kx_io_read(io.get(), &length);
  if (status == KX_SUCCESS && std::string_view(method) == zorv::kServerLog.methods.query) {
    record_uint64 count = 0;
    memcpy(&count, reply, sizeof count);
    EXPECT_EQ(length, kQueryHeaderSize + count * sizeof(db_conn_server_log));
  }
  return status;
}

int query(record_int64 count) {
  return call(zorv::kServerLog.methods.query, bytes_of(harness::page(count)));
}

// With a body that is larger than a packet.
template <int Count, size_t Size>
int long_query() {
  static const std::string body = bytes_of(harness::page(Count)) + std::string(Size, 'x');
  return call(zorv::kServerLog.methods.query, body);
}

int insert() {
  return call(zorv::kServerLog.methods.insert, bytes_of(db_conn_server_log{}));
}

struct Fault {
  Call kind;
  int error;
  int least;  // calls of the kind that the request makes at least
  std::set<int> statuses;
};

struct Scenario {
  const char* name;
  bool in_caller;
  int (*run)();
  std::vector<Fault> faults;
};

void PrintTo(const Scenario& scenario, std::ostream* out) {
  *out << scenario.name;
}

// What every request meets.
const Fault kNotAccepted{Call::accept, EMFILE, 1, {KX_IS_BUSY}};
const Fault kNotSent{Call::sendmsg, ENOBUFS, 1, {KX_IO_FAILURE}};
const Fault kNoMemory{Call::allocation, ENOMEM, 1, {KX_SUCCESS, KX_IS_REJECT, KX_IO_FAILURE}};

const Scenario kScenarios[] = {
    {"Query", false, [] { return query(3); }, {kNotAccepted, kNotSent, kNoMemory}},
    {"AnswerInAMemfd",
     false,
     [] { return query(-1); },
     {kNotSent,
      kNoMemory,
      {Call::memfd_create, EMFILE, 1, {KX_IS_REJECT}},
      {Call::pwrite, ENOSPC, 2, {KX_IS_REJECT, KX_IO_FAILURE}}}},
    {"RequestInAMemfd",
     false,
     long_query<3, 100'000>,
     {kNotSent, kNoMemory, {Call::mmap, ENOMEM, 2, {KX_IO_FAILURE}}}},
    // A failed statement is the log's business.
    {"Insert", false, insert, {kNoMemory, {Call::pwrite, ENOSPC, 3, {KX_SUCCESS}}}},
    {"Check",
     false,
     [] { return call("db_privilege_user_block_check", "alice"); },
     {kNotSent, kNoMemory}},
    {"Caller",
     true,
     long_query<-1, 100'000>,
     {kNotSent,
      {Call::memfd_create, EMFILE, 1, {KX_IS_BUSY}},
      {Call::pwrite, ENOSPC, 1, {KX_IO_FAILURE}},
      {Call::mmap, ENOMEM, 2, {KX_IO_FAILURE}},
      {Call::allocation, ENOMEM, 2, {KX_IO_FAILURE}}}},
    {"CallerOfAPage",
     true,
     [] {
       zorv_api::Rows rows;
       const int status = zorv_api::query(zorv::kServerLog, harness::page(3), rows);
       EXPECT_EQ(rows.count != 0, status == KX_SUCCESS);
       return status;
     },
     {{Call::allocation, ENOMEM, 3, {KX_IO_FAILURE}}}},
};

class EachCallFails : public testing::TestWithParam<Scenario> {};

TEST_P(EachCallFails, Once) {
  const Scenario& scenario = GetParam();
  harness::Faults faults;
  harness::use_fault_plan(faults.plan());
  harness::WrappedDaemon daemon(faults.preload());
  for (int i = 0; i < kRows; ++i) {
    ASSERT_EQ(insert(), KX_SUCCESS);
  }
  ASSERT_EQ(scenario.run(), KX_SUCCESS);
  const pid_t process = scenario.in_caller ? getpid() : daemon.pid();
  const auto open = [&] { return harness::open_descriptors(process); };
  const int resting = open();
  const long resident = harness::resident_kilobytes(process);
  for (const Fault& fault : scenario.faults) {
    if (fault.kind == Call::allocation && harness::kSanitized) {
      continue;  // the allocator is the sanitizer's
    }
    SCOPED_TRACE(static_cast<int>(fault.kind));
    int number = 1;
    for (; number < kMostCalls; ++number) {
      faults.fail(process, fault.kind, number, fault.error);
      const int status = scenario.run();
      if (!faults.clear()) {
        EXPECT_EQ(status, KX_SUCCESS);
        break;
      }
      EXPECT_TRUE(fault.statuses.contains(status)) << "call " << number << ": " << status;
      EXPECT_EQ(scenario.run(), KX_SUCCESS) << "once more, behind call " << number;
      EXPECT_TRUE(harness::eventually([&] { return open() <= resting; }))
          << "call " << number << ": " << open() << " descriptors instead of " << resting;
    }
    EXPECT_GT(number, fault.least);
    EXPECT_LT(number, kMostCalls);
  }
  if (!harness::kSanitized) {
    EXPECT_LT(harness::resident_kilobytes(process), resident + 2048);
  }
  harness::use_fault_plan(nullptr);
  EXPECT_EQ(daemon.stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Faults, EachCallFails, testing::ValuesIn(kScenarios),
                         [](const auto& scenario) { return std::string(scenario.param.name); });

// What is there of memory is all that the daemon, or its caller, gets for a while.
TEST(LittleMemory, RefusesWhatDoesNotFitAndServesOn) {
  if (harness::kSanitized) {
    GTEST_SKIP() << "the sanitizer's shadow is larger than any limit";
  }
  harness::Daemon daemon;
  harness::insert_rows("conn_server_log", 10'000, "username", "'user' || i");
  ASSERT_EQ((long_query<-1, (16 << 20)>()), KX_SUCCESS);
  for (const pid_t process : {daemon.pid(), getpid()}) {
    std::ifstream file("/proc/" + std::to_string(process) + "/statm");
    rlim_t pages = 0;
    file >> pages;
    const rlimit limit{pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (8 << 20),
                       RLIM_INFINITY};
    ASSERT_EQ(prlimit(process, RLIMIT_AS, &limit, nullptr), 0);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(query(10), KX_SUCCESS);
      if (process == getpid()) {
        EXPECT_FALSE(harness::list(list_conn_server_log).answered);
      } else {
        EXPECT_EQ((long_query<-1, (16 << 20)>()), KX_IO_FAILURE) << "there is no room to map it";
      }
    }
    const rlimit none{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(prlimit(process, RLIMIT_AS, &none, nullptr), 0);
    EXPECT_EQ((long_query<-1, (16 << 20)>()), KX_SUCCESS);
  }
  EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
