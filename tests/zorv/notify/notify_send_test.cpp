#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "harness/process.h"
#include "harness/test_root.h"
#include "nc_msg_db.h"

namespace {

// Stands where the notification tool is and writes down what it was given: each argument in angle
// brackets, its open descriptors, its blocked and caught signals.
constexpr const char* kRecorder = R"(#!/bin/sh
for word in "$0" "$@"; do printf '<%s>' "$word"; done > "$ZORV_ROOT/seen.part"
ls /proc/self/fd | tr '\n' ' ' > "$ZORV_ROOT/fds"
streams=$(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2)
echo "$streams" > "$ZORV_ROOT/streams"
grep -E 'SigBlk|SigCgt' /proc/self/status > "$ZORV_ROOT/signals"
mv "$ZORV_ROOT/seen.part" "$ZORV_ROOT/seen"
)";

std::string what_the_tool_saw() {
  std::string seen;
  EXPECT_TRUE(harness::eventually([&seen] {
    seen = harness::read_file("/seen");
    return !seen.empty();
  }));
  unlink((harness::test_root() + "/seen").c_str());
  return seen;
}

class NotifySend : public testing::Test {
 protected:
  void SetUp() override {
    harness::write_file("/usr/local/sbin/notify", kRecorder);
    chmod((harness::test_root() + "/usr/local/sbin/notify").c_str(), 0755);
  }
};

std::string fixed_words(const char* category, const char* id, const char* level,
                        const char* message) {
  return "<" + harness::test_root() + "/usr/local/sbin/notify><send><-A><A238><-C><" + category +
         "><-M><" + id + "><-l><" + level + "><-t><3><" + message + "><ZORV Service>";
}

TEST_F(NotifySend, ArgumentsAreTheFixedFourteenAndTheValues) {
  using zorv::NcMsg;
  zorv::nclog::notify_send(zorv::nc_msg(NcMsg::C001_0020), "o'brien \"x\" {1}", nullptr);
  EXPECT_EQ(
      what_the_tool_saw(),
      fixed_words("C001", "0020", "warn",
                  "[{0}] Blocked user \"{1}\". The user has reached the login attempt limit.") +
          "<o'brien \"x\" {1}>");

  zorv::nclog::notify_send(zorv::nc_msg(NcMsg::C004_0031), nullptr);
  EXPECT_EQ(what_the_tool_saw(),
            fixed_words("C004", "0031", "info",
                        "[{0}] Connected NAS to Kesta Orchestrator. Organization: {1}, Region: "
                        "{2}, Hub: {3}."));

  zorv::nclog::notify_send(zorv::nc_msg(NcMsg::C001_0031), "1", "", "3", "4", "5", "6", "7", "8",
                           "9", "10", "11", "12", "13", "14", nullptr);
  EXPECT_EQ(what_the_tool_saw(),
            fixed_words("C001", "0031", "warn",
                        "[{0}] setup_vpn_entrance failed. VPN connection may appear connected but "
                        "network traffic cannot be sent out") +
                "<1><><3><4><5><6><7><8><9><10><11><12>");
}

TEST_F(NotifySend, ToolIsDetachedAndInheritsNothing) {
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  ASSERT_EQ(fcntl(pipe_ends[1], F_DUPFD, 700), 700);
  signal(SIGUSR1, [](int) {});
  zorv::nclog::notify_send(zorv::nc_msg(zorv::NcMsg::C001_0021), "alice", nullptr);
  EXPECT_NE(what_the_tool_saw(), "");
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "the tool is nobody's child here";
  // ls has its folder open as descriptor 3; the shell may keep its script at 10.
  const std::string fds = harness::read_file("/fds");
  EXPECT_EQ(fds.find("700"), std::string::npos) << fds;
  EXPECT_EQ(harness::read_file("/streams"), "/dev/null\n/dev/null\n/dev/null\n");
  EXPECT_NE(harness::read_file("/signals").find("SigBlk:\t0000000000000000"), std::string::npos)
      << harness::read_file("/signals");
  sigset_t mask;
  sigprocmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_FALSE(sigismember(&mask, SIGTERM)) << "the caller's mask is as it was";
}

TEST_F(NotifySend, MissingToolAndIgnoredChildrenAreNoTrouble) {
  unlink((harness::test_root() + "/usr/local/sbin/notify").c_str());
  zorv::nclog::notify_send(zorv::nc_msg(zorv::NcMsg::C001_0021), "alice", nullptr);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  SetUp();
  signal(SIGCHLD, SIG_IGN);
  zorv::nclog::notify_send(zorv::nc_msg(zorv::NcMsg::C001_0021), "bob", nullptr);
  EXPECT_NE(what_the_tool_saw().find("<bob>"), std::string::npos);
}

}  // namespace
