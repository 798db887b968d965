#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "harness/process.h"
#include "harness/test_root.h"
#include "nc_msg_db.h"

namespace {

using zorv::nc_msg;
using zorv::nclog::notify_send;

// Stands where the notification tool is and writes down what it was given: which signals it blocks
// (first, because shells change that), its own descriptors (without a redirection, which would be
// one), each argument in angle brackets.
constexpr const char* kRecorder = R"(#!/bin/sh
while read -r name value; do
  [ "$name" = SigBlk: ] && echo "$value"
done < /proc/self/status > "$ZORV_ROOT/mask"
find /proc/$$/fd -type l ! -lname "$0" -fprintf "$ZORV_ROOT/descriptors" '%l\n'
for word in "$0" "$@"; do printf '<%s>' "$word"; done > "$ZORV_ROOT/seen.part"
mv "$ZORV_ROOT/seen.part" "$ZORV_ROOT/seen"
)";

class NotifySend : public testing::Test {
 protected:
  void SetUp() override {
    harness::write_file("/usr/local/sbin/notify", kRecorder);
    chmod(tool_.c_str(), 0755);
  }

  static std::string what_the_tool_saw() {
    EXPECT_TRUE(harness::eventually([] { return !harness::read_file("/seen").empty(); }));
    const std::string seen = harness::read_file("/seen");
    unlink((harness::test_root() + "/seen").c_str());
    return seen;
  }

  std::string fixed_words(const std::string& category, const char* id, const char* level,
                          const char* message) {
    return "<" + tool_ + "><send><-A><A238><-C><" + category + "><-M><" + id + "><-l><" + level +
           "><-t><3><" + message + "><ZORV Service>";
  }

  const std::string tool_ = harness::test_root() + "/usr/local/sbin/notify";
};

TEST_F(NotifySend, ArgumentsAreTheFixedFourteenAndTheValues) {
  notify_send(nc_msg("C001", "0020"), "o'brien \"x\" {1}", nullptr);
  EXPECT_EQ(
      what_the_tool_saw(),
      fixed_words("C001", "0020", "warn",
                  "[{0}] Blocked user \"{1}\". The user has reached the login attempt limit.") +
          "<o'brien \"x\" {1}>");
  notify_send(nc_msg("C004", "0032"), nullptr);
  EXPECT_EQ(what_the_tool_saw(),
            fixed_words("C004", "0032", "info",
                        "[{0}] Disconnected NAS from Kesta Orchestrator. Organization: {1}, "
                        "Region: {2}, Hub: {3}."));
  notify_send(nc_msg("C001", "0032"), "1", "", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12",
              "13", "14", nullptr);
  EXPECT_EQ(what_the_tool_saw(),
            fixed_words("C001", "0032", "warn", "[{0}] boot_setup_nat may not execute properly.") +
                "<1><><3><4><5><6><7><8><9><10><11><12>");
}

TEST_F(NotifySend, ToolIsDetachedAndInheritsNothing) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(dup2(ends[1], 700), 700);
  ASSERT_EQ(dup2(ends[0], STDIN_FILENO), STDIN_FILENO);
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR2);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  notify_send(nc_msg("C001", "0021"), "alice", nullptr);
  EXPECT_NE(what_the_tool_saw(), "");
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "the tool is nobody's child here";
  EXPECT_EQ(harness::read_file("/descriptors"), "/dev/null\n/dev/null\n/dev/null\n");
  EXPECT_EQ(harness::read_file("/mask"), "0000000000000800\n") << "the caller's";
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_TRUE(sigismember(&mask, SIGUSR2) && !sigismember(&mask, SIGTERM));
}

TEST_F(NotifySend, MissingToolIgnoredChildrenAndLittleStackAreNoTrouble) {
  signal(SIGCHLD, SIG_IGN);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, size_t{64} << 10), 0);
  pthread_t thread{};
  const auto send = [](void*) -> void* {
    notify_send(nc_msg("C001", "0021"), "bob", nullptr);
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, send, nullptr), 0);
  pthread_join(thread, nullptr);
  EXPECT_NE(what_the_tool_saw().find("<bob>"), std::string::npos);
  signal(SIGCHLD, SIG_DFL);
  unlink(tool_.c_str());
  notify_send(nc_msg("C001", "0021"), "alice", nullptr);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

}  // namespace
