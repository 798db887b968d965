// The daemon's entry: options, daemonising, the PID file, signals and the configuration file.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "harness/bus_peer.h"
#include "harness/daemon.h"
#include "zorv_api_db.h"
#include "zorv_calls.h"

namespace {

namespace fs = std::filesystem;
using harness::eventually;
using Texts = std::vector<std::string>;

constexpr const char* kPidFile = "/var/run/zorvd.pid";

TEST(DaemonEntry, HelpAndTestsOfConfigurationFiles) {
  const std::string name = harness::program("zorvd");
  const std::string help = "\n Usage: " + name + " [OPTIONS]\n\n  Options:\n   -h --help   ";
  const char* const hello = "DEBUG Hello ZORVD\n";
  harness::write_file("/good", "  -12 and more");
  harness::write_file("/wrong", "delay=5");
  const std::tuple<Texts, int, std::string, const char*> cases[] = {
      {{name, "-h"}, 0, help, hello},
      {{name, "--nonsense"}, 1, help, hello},
      {{name, "-d", "-t", "/good", "--nonsense"}, 0, "", hello},
      {{name, "-t", "/wrong"}, 1, "", "ERROR Wrong config file /wrong\n"},
      {{name, "-t", "/none"}, 1, "", "ERROR Can't read config file /none\n"},
  };
  for (const auto& [words, status, out, complaint] : cases) {
    const harness::Outcome outcome = harness::run(words);
    EXPECT_EQ(outcome.status, status) << words[1];
    EXPECT_EQ(outcome.out.substr(0, help.size()), out);
    EXPECT_EQ(harness::new_log_texts("zorvd").back(), complaint);
  }
}

TEST(DaemonEntry, ForegroundRunLogsItsWayThroughReloadAndStop) {
  harness::write_file("/etc/config/zorvd.conf", "7");
  harness::write_file("/var/run/stale.pid", "1\n");
  harness::Daemon daemon({"-c", "/etc/config/zorvd.conf", "-p", "/var/run/stale.pid"});
  EXPECT_EQ(harness::read_file("/var/run/stale.pid"), "1\n") << "no PID file in the foreground";
  daemon.send(SIGHUP);
  EXPECT_TRUE(eventually([] { return harness::log_holds("Reloaded configuration file"); }));
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_FALSE(fs::exists(harness::test_root() + "/var/run/stale.pid"));

  const std::string name = harness::program("zorvd");
  const Texts expected{
      "DEBUG Hello ZORVD\n",
      "INFO Started " + name + "\n",
      "ERROR Configuration of " + name + " read from file /etc/config/zorvd.conf",
      "INFO kx_start\n",
      "DEBUG sig = 1\n",
      "INFO Debug: reloading daemon config file ...\n",
      "ERROR Reloaded configuration file /etc/config/zorvd.conf of " + name,
      "DEBUG sig = 15\n",
      "INFO Debug: stopping daemon ...\n",
      "INFO Stopped " + name,
  };
  EXPECT_EQ(harness::log_texts("zorvd"), expected);
  // Opened ("d") and closed ("c") in this order, the event table not among them.
  std::string connections;
  for (const harness::LogLine& line : harness::log_lines()) {
    if (line.text.find("db ") < 7) {
      connections += line.module.substr(9) + line.text[0] + " ";
    }
  }
  EXPECT_EQ(connections,
            "handlerd conn_client_handlerd list_handlerd device_info_handlerd "
            "privilege_user_block_handlerd handlerc conn_client_handlerc list_handlerc "
            "privilege_user_block_handlerc ");
}

// A relative root is the caller's, also for the tools that the daemon starts.
TEST(DaemonEntry, DaemonizedProcessHasItsStreamsItsMaskItsRootAndItsPidFile) {
  harness::install_notify();
  const fs::path root = harness::test_root();
  const std::string command = "umask 077; cd " + root.parent_path().string() +
                              " && export ZORV_ROOT=" + root.filename().string() + " && exec " +
                              harness::program("zorvd") + " -d -l /late.log -p " + kPidFile;
  ASSERT_EQ(harness::run({"/bin/sh", "-c", command}).status, 0);
  ASSERT_TRUE(harness::wait_until_serving("@/var/run/zorvd.sock"));
  const std::string text = harness::read_file(kPidFile);
  const pid_t pid = atoi(text.c_str());
  ASSERT_EQ(text, std::to_string(pid) + "\n");
  EXPECT_NE(getsid(pid), getsid(0));
  EXPECT_NE(getsid(pid), pid) << "no leader, which a terminal could come to";
  const std::string process = "/proc/" + std::to_string(pid);
  EXPECT_EQ(fs::read_symlink(process + "/cwd"), "/");
  // 0 is what the test handed down; the three streams follow it, then the PID file.
  EXPECT_EQ(fs::read_symlink(process + "/fd/3"), "/dev/null");
  EXPECT_EQ(fs::read_symlink(process + "/fd/4"), harness::test_root() + kPidFile);
  // The mask that it was started with is not the one it works with.
  for (const auto& [path, mode] :
       {std::pair{harness::kDatabase, 0644U}, {"/late.log", 0666U}, {kPidFile, 0640U}}) {
    EXPECT_EQ(fs::status(harness::test_root() + path).permissions(), fs::perms{mode}) << path;
  }
  db_conn_server_log record{};
  record.vpn_type = zorv::OVPN_SERVER_TYPE;
  record.action = zorv::kLoginOk;
  EXPECT_EQ(zorv_api::insert(zorv::kServerLog, &record), KX_SUCCESS);
  EXPECT_EQ(harness::notifications(1).size(), 1U);

  // Each process of the second daemon holds its standard input: all are gone when that ends.
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(harness::run({"/bin/sh", "-c", command + " <&" + std::to_string(ends[1])}).status, 0);
  close(ends[1]);
  pollfd end{ends[0], POLLIN, 0};
  EXPECT_EQ(poll(&end, 1, 20'000), 1) << "it gives up at the lock";
  EXPECT_EQ(harness::read_file(kPidFile), text) << "and left the file as it was";
  EXPECT_EQ(harness::run({harness::program("zorvd")}).status, 0) << "the address is taken";
  EXPECT_EQ(harness::log_texts("kxbus").at(0).substr(0, 5), "WARN ");
  kill(pid, SIGINT);
  EXPECT_TRUE(eventually([pid] { return kill(pid, 0) != 0; }));
  EXPECT_FALSE(fs::exists(harness::test_root() + kPidFile));
}

TEST(DaemonEntry, CallersWaitInASocketThatWasHandedOverWhileItRestarts) {
  const harness::RawSocket socket = harness::RawSocket::listening(kZorvdAddress);
  const auto serve = [&socket] {
    dup2(socket.get(), 5);
    setenv("LISTEN_FDS", "3", 1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    return harness::become({harness::program("zorvd")});
  };
  std::atomic<int> inserted = 0;
  std::thread inserting([&inserted] {
    const db_conn_server_log record{};
    while (inserted < 200 && zorv_api::insert(zorv::kServerLog, &record) == KX_SUCCESS) {
      ++inserted;
    }
  });
  for (int last = 20; last <= 200; last += 20) {
    harness::Child daemon(serve);
    EXPECT_TRUE(eventually([&] { return inserted >= last; }));
    EXPECT_EQ(daemon.stop(), 0);
  }
  inserting.join();
  EXPECT_EQ(harness::sql("SELECT count(*) FROM conn_server_log").at(0), "200");
}

}  // namespace
