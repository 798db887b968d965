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

TEST(NotifySend, RunsTheToolDetachedWithTheWordsAndNothingElse) {
  static_assert(nc_msg("C004", "0032")->category_id == std::string_view("C004"));
  const std::string tool = harness::test_root() + "/usr/local/sbin/notify";
  harness::write_file("/usr/local/sbin/notify", kRecorder);
  chmod(tool.c_str(), 0755);
  ASSERT_EQ(dup2(open("/dev/zero", O_RDWR), STDIN_FILENO), STDIN_FILENO);
  ASSERT_EQ(dup2(STDIN_FILENO, 700), 700);
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR2);
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  notify_send(nc_msg("C001", "0032"), "o'brien \"x\" {1}", "", "3", "4", "5", "6", "7", "8", "9",
              "10", "11", "12", "13", nullptr);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "the tool is nobody's child here";
  EXPECT_TRUE(harness::eventually([] { return !harness::read_file("/seen").empty(); }));
  EXPECT_EQ(harness::read_file("/seen"),
            "<" + tool +
                "><send><-A><A238><-C><C001><-M><0032><-l><warn><-t><3>"
                "<[{0}] boot_setup_nat may not execute properly.><ZORV Service>"
                "<o'brien \"x\" {1}><><3><4><5><6><7><8><9><10><11><12>");
  EXPECT_EQ(harness::read_file("/descriptors"), "/dev/null\n/dev/null\n/dev/null\n");
  EXPECT_EQ(harness::read_file("/mask"), "0000000000000800\n") << "the caller's";
  sigprocmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_TRUE(sigismember(&mask, SIGUSR2) && !sigismember(&mask, SIGTERM));
}

}  // namespace
