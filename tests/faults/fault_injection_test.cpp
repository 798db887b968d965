// The N-th call of a kind fails, for every N that a request reaches: in the daemon, and in its
// caller. Whatever fails, the caller gets a status that tells the truth, nothing stays open, and
// the next request is served.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "harness/faults.h"
#include "harness/records.h"
#include "harness/test_root.h"
#include "kxbus.h"
#include "zorv_api_db.h"

namespace {

using harness::bytes_of;
using harness::Call;

constexpr int kRows = 40;  // more than a packet holds
constexpr int kMostCalls = 2000;

std::string page(record_int64 count) {
  db_query_cond cond{};
  cond.count = count;
  return bytes_of(cond);
}

// A call, whose answer must be whole when it is one.
int call(const char* method, const std::string& body) {
  std::string reply;
  const int status = harness::bus_call(method, body, &reply, 20, -1, kZorvdAddress);
  if (status == KX_SUCCESS && std::string_view(method) == "db_conn_server_log_query") {
    record_uint64 count = 0;
    memcpy(&count, reply.data(), std::min(reply.size(), sizeof count));
    EXPECT_EQ(reply.size(), kQueryHeaderSize + count * sizeof(db_conn_server_log));
  }
  return status;
}

int small_call() {
  return call("zorv_mobile_gen_zorv_uuid", "");
}

struct Fault {
  Call kind;
  int error;
  int least;  // calls of the kind that the request makes at least
  std::set<int> statuses;
};

struct Scenario {
  const char* name;
  int (*run)();
  std::vector<Fault> faults;
};

void PrintTo(const Scenario& scenario, std::ostream* out) {
  *out << scenario.name;
}

// What every request meets.
const Fault kNotAccepted{Call::accept, EMFILE, 1, {KX_IS_BUSY}};
const Fault kNotSent{Call::sendmsg, ENOBUFS, 1, {KX_IO_FAILURE}};
const Fault kNoFile{Call::open, EMFILE, 2, {KX_SUCCESS}};  // a line of the log, or the store's file
const Fault kNoLogLine{Call::write, EIO, 1, {KX_SUCCESS}};  // is lost
const Fault kNoMemory{Call::allocation, ENOMEM, 1, {KX_SUCCESS, KX_IS_REJECT, KX_IO_FAILURE}};
const Fault kUnreadable{Call::pread, EIO, 1, {KX_SUCCESS}};

const Scenario kScenarios[] = {
    {"SmallAnswer", small_call, {kNotAccepted, kNotSent, kNoFile, kNoLogLine}},
    {"Query",
     [] { return call("db_conn_server_log_query", page(3)); },
     {kNotAccepted, kNotSent, kNoFile, kNoLogLine, kNoMemory, kUnreadable}},
    {"AnswerInAMemfd",
     [] { return call("db_conn_server_log_query", page(-1)); },
     {kNotAccepted,
      kNotSent,
      kNoFile,
      kNoMemory,
      kUnreadable,
      {Call::memfd_create, EMFILE, 1, {KX_IS_REJECT}},
      {Call::pwrite, ENOSPC, 2, {KX_IS_REJECT, KX_IO_FAILURE}},
      {Call::ftruncate, EIO, 1, {KX_IO_FAILURE}}}},
    {"RequestInAMemfd",
     [] { return call("db_conn_server_log_query", page(3) + std::string(100'000, 'x')); },
     {kNotAccepted, kNotSent, kNoMemory, {Call::mmap, ENOMEM, 2, {KX_IO_FAILURE}}}},
    {"Insert",
     [] { return call("db_conn_insert", bytes_of(db_conn_server_log{})); },
     {kNotAccepted,
      kNotSent,
      kNoFile,
      kNoMemory,
      kUnreadable,
      {Call::pwrite, ENOSPC, 3, {KX_SUCCESS}}}},  // a failed statement is the log's business
    {"Check",
     [] { return call("db_privilege_user_block_check", "alice"); },
     {kNotAccepted, kNotSent, kNoFile, kNoLogLine, kNoMemory}},
};

class FaultInDaemon : public testing::TestWithParam<Scenario> {
 protected:
  void SetUp() override {
    std::filesystem::remove(harness::test_root() + harness::kDatabase);
    daemon_ = std::make_unique<harness::WrappedDaemon>(faults_.preload());
    for (int i = 0; i < kRows; ++i) {
      ASSERT_EQ(call("db_conn_insert", bytes_of(db_conn_server_log{})), KX_SUCCESS);
    }
    resting_ = harness::open_descriptors(daemon_->pid());
  }
  void TearDown() override { EXPECT_EQ(daemon_->stop(), 0); }

  // How many calls of the kind the request makes; each of them has failed once.
  int fail_each(const Scenario& scenario, const Fault& fault) {
    for (int number = 1; number < kMostCalls; ++number) {
      faults_.fail(daemon_->pid(), fault.kind, number, fault.error);
      const int status = scenario.run();
      if (!faults_.clear()) {
        EXPECT_EQ(status, KX_SUCCESS);
        return number - 1;
      }
      EXPECT_TRUE(fault.statuses.contains(status)) << "call " << number << ": " << status;
      // The same once more: a line of the log that could not be locked leaves its lock to the
      // module's next line.
      EXPECT_EQ(scenario.run(), KX_SUCCESS) << "call " << number;
      EXPECT_TRUE(harness::eventually([this] {
        return harness::open_descriptors(daemon_->pid()) <= resting_;
      })) << "call "
          << number << ": " << harness::open_descriptors(daemon_->pid())
          << " descriptors instead of " << resting_;
    }
    return kMostCalls;
  }

  harness::Faults faults_;
  std::unique_ptr<harness::WrappedDaemon> daemon_;
  int resting_ = 0;
};

TEST_P(FaultInDaemon, EachCallFailsOnce) {
  const long resident = harness::resident_kilobytes(daemon_->pid());
  for (const Fault& fault : GetParam().faults) {
    if (fault.kind == Call::allocation && harness::kSanitized) {
      continue;  // the allocator is the sanitizer's
    }
    SCOPED_TRACE(static_cast<int>(fault.kind));
    const int calls = fail_each(GetParam(), fault);
    EXPECT_GE(calls, fault.least);
    EXPECT_LT(calls, kMostCalls);
  }
  if (!harness::kSanitized) {
    EXPECT_LT(harness::resident_kilobytes(daemon_->pid()), resident + 2048);
  }
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultInDaemon, testing::ValuesIn(kScenarios),
                         [](const auto& scenario) { return std::string(scenario.param.name); });

// One call as a caller makes it, with nothing of the test's own between its steps.
int call_in_steps(kx_io*& io, const char* method, const std::string& body) {
  io = kx_io_create();
  if (io == nullptr) {
    return KX_IO_FAILURE;
  }
  const int status = kx_io_write(io, body.data(), body.size());
  return status != KX_SUCCESS ? status : kx_call(kZorvdAddress, method, io, 20, -1);
}

TEST(FaultInCaller, EachCallFailsOnce) {
  std::filesystem::remove(harness::test_root() + harness::kDatabase);
  harness::Daemon daemon;
  for (int i = 0; i < kRows; ++i) {
    ASSERT_EQ(call("db_conn_insert", bytes_of(db_conn_server_log{})), KX_SUCCESS);
  }
  harness::Faults faults;
  harness::use_fault_plan(faults.plan());
  const std::string large = page(-1) + std::string(100'000, 'x');
  const int resting = harness::open_descriptors();
  for (const Fault& fault : std::initializer_list<Fault>{
           {Call::sendmsg, ENOBUFS, 1, {KX_IO_FAILURE}},
           {Call::memfd_create, EMFILE, 1, {KX_IS_BUSY}},
           {Call::pwrite, ENOSPC, 1, {KX_IO_FAILURE}},
           {Call::ftruncate, EIO, 1, {KX_IO_FAILURE}},
           {Call::mmap, ENOMEM, 2, {KX_IO_FAILURE}},
           {Call::allocation, ENOMEM, 2, {KX_IO_FAILURE}},
       }) {
    if (fault.kind == Call::allocation && harness::kSanitized) {
      continue;
    }
    SCOPED_TRACE(static_cast<int>(fault.kind));
    int number = 0;
    for (bool failed = true; failed; ++number) {
      kx_io* io = nullptr;
      faults.fail(getpid(), fault.kind, number + 1, fault.error);
      const int status = call_in_steps(io, "db_conn_server_log_query", large);
      failed = faults.clear();
      size_t length = 0;
      kx_io_read(io, &length);
      kx_io_free(io);
      EXPECT_TRUE(failed ? fault.statuses.contains(status) : status == KX_SUCCESS)
          << "call " << number + 1 << ": " << status;
      EXPECT_EQ(harness::open_descriptors(), resting) << "call " << number + 1;
      if (!failed) {
        EXPECT_EQ(length, kQueryHeaderSize + kRows * sizeof(db_conn_server_log));
      }
    }
    EXPECT_GT(number, fault.least);
  }
  harness::use_fault_plan(nullptr);
  EXPECT_EQ(daemon.stop(), 0);
}

// What the daemon has of memory is all that it gets for a while.
TEST(LittleMemory, NothingMoreIsToBeHadForAWhile) {
  if (harness::kSanitized) {
    GTEST_SKIP() << "the sanitizer's shadow is larger than any limit";
  }
  std::filesystem::remove(harness::test_root() + harness::kDatabase);
  harness::Daemon daemon;
  const pid_t process = daemon.process().pid();
  std::ifstream file("/proc/" + std::to_string(process) + "/statm");
  rlim_t pages = 0;
  file >> pages;
  const rlimit limit{pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)), RLIM_INFINITY};
  ASSERT_EQ(prlimit(process, RLIMIT_AS, &limit, nullptr), 0);
  const std::string large = bytes_of(db_conn_server_log{}) + std::string(1 << 20, 'x');
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(call("db_conn_insert", large), KX_IO_FAILURE) << "there is no room to map it";
    EXPECT_EQ(small_call(), KX_SUCCESS);
  }
  const rlimit none{RLIM_INFINITY, RLIM_INFINITY};
  ASSERT_EQ(prlimit(process, RLIMIT_AS, &none, nullptr), 0);
  EXPECT_EQ(call("db_conn_insert", large), KX_SUCCESS);
  EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
