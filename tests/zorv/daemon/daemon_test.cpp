// The daemon's entry: options, daemonising, the PID file, signals and the configuration file.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "harness/daemon.h"
#include "zorv_calls.h"

namespace {

using harness::eventually;

constexpr const char* kPidFile = "/var/run/zorvd.pid";

std::string daemonizing() {
  return "exec " + harness::program("zorvd") + " -d -l /late.log -p " + kPidFile;
}

// A daemonised zorvd, ended by the process id in its PID file.
class Detached {
 public:
  explicit Detached(const std::string& preparation = "") {
    // A million close calls would take the better part of the timeout under a sanitizer.
    const std::string unlimited = "ulimit -n 1048576 2>/dev/null; ";
    status = harness::run({"/bin/sh", "-c", preparation + unlimited + daemonizing()}).status;
    serving = harness::wait_until_serving("@/var/run/zorvd.sock");
    pid = atoi(harness::read_file(kPidFile).c_str());
  }
  ~Detached() { end(); }
  void end(int signal_number = SIGTERM) {
    if (pid > 0) {
      kill(pid, signal_number);
      EXPECT_TRUE(eventually([this] { return kill(pid, 0) != 0; }));
      pid = 0;
    }
  }
  std::string descriptor(int number) const {
    std::error_code ignored;
    return std::filesystem::read_symlink(
        "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(number), ignored);
  }

  int status;
  bool serving;
  pid_t pid;
};

TEST(DaemonEntry, HelpAndWrongOptions) {
  const std::string name = harness::program("zorvd");
  const std::string help = "\n Usage: " + name + R"( [OPTIONS]

  Options:
   -h --help                 Print this help
   -c --conf_file filename   Read configuration from the file
   -t --test_conf filename   Test configuration file
   -l --log_file  filename   Write logs to the file
   -d --daemon               Daemonize this application
   -p --pid_file  filename   PID file used by daemonized app

)";
  for (const auto& [option, status] :
       {std::pair{"-h", 0}, {"--help", 0}, {"-x", 1}, {"--nonsense", 1}, {"-c", 1}}) {
    const harness::Outcome outcome = harness::run({name, option});
    EXPECT_EQ(outcome.status, status) << option;
    EXPECT_EQ(outcome.out, help) << option;
  }
}

TEST(DaemonEntry, ConfigurationFileTest) {
  const std::string kFile = "/etc/config/zorvd.conf";
  using Texts = std::vector<std::string>;
  for (const auto& [content, complaint] : {std::pair<const char*, const char*>{"5\nand more", ""},
                                           {"  -12", ""},
                                           {"", "Wrong config file "},
                                           {"delay=5", "Wrong config file "},
                                           {nullptr, "Can't read config file "}}) {
    std::filesystem::remove(harness::test_root() + kFile);
    harness::write_file(harness::kLogFile, "");
    if (content != nullptr) {
      harness::write_file(kFile, content);
    }
    // What stands behind -t is not looked at; -d before it does not make a daemon.
    EXPECT_EQ(harness::run({harness::program("zorvd"), "-d", "-t", kFile, "--nonsense"}).status,
              *complaint == '\0' ? 0 : 1);
    Texts expected{"DEBUG Hello ZORVD\n"};
    if (*complaint != '\0') {
      expected.push_back("ERROR " + (complaint + kFile) + "\n");
    }
    EXPECT_EQ(harness::log_texts("zorvd"), expected);
  }
}

TEST(DaemonEntry, ForegroundRunLogsItsWayThroughReloadAndStop) {
  harness::write_file("/etc/config/zorvd.conf", "7");
  harness::write_file("/var/run/stale.pid", "1\n");
  harness::Daemon daemon({"-c", "/etc/config/zorvd.conf", "-p", "/var/run/stale.pid"});
  EXPECT_EQ(harness::read_file("/var/run/stale.pid"), "1\n") << "no PID file in the foreground";
  daemon.process().send(SIGHUP);
  EXPECT_TRUE(eventually([] { return harness::log_holds("Reloaded configuration file"); }));
  std::filesystem::remove(harness::test_root() + "/etc/config/zorvd.conf");
  daemon.process().send(SIGHUP);
  EXPECT_TRUE(eventually([] { return harness::log_holds("Can not open config file"); }));
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_FALSE(std::filesystem::exists(harness::test_root() + "/var/run/stale.pid"));

  const std::string name = harness::program("zorvd");
  const std::vector<std::string> expected{
      "DEBUG Hello ZORVD\n",
      "INFO Started " + name + "\n",
      "ERROR Configuration of " + name + " read from file /etc/config/zorvd.conf",
      "INFO kx_start\n",
      "DEBUG sig = 1\n",
      "INFO Debug: reloading daemon config file ...\n",
      "ERROR Reloaded configuration file /etc/config/zorvd.conf of " + name,
      "DEBUG sig = 1\n",
      "INFO Debug: reloading daemon config file ...\n",
      "ERROR Can not open config file: /etc/config/zorvd.conf, error: No such file or directory",
      "DEBUG sig = 15\n",
      "INFO Debug: stopping daemon ...\n",
      "INFO Stopped " + name,
  };
  EXPECT_EQ(harness::log_texts("zorvd"), expected);
  // Opened in this order, the event table not among them; the device info is not finished.
  std::string opened;
  std::string closed;
  for (const harness::LogLine& line : harness::log_lines()) {
    if (line.text.rfind("db open ", 0) == 0) {
      opened += line.module + " ";
    } else if (line.text.rfind("close db ", 0) == 0) {
      closed += line.module + " ";
    }
  }
  EXPECT_EQ(opened,
            "zorvd_db_handler zorvd_db_conn_client_handler zorvd_db_list_handler "
            "zorvd_db_device_info_handler zorvd_db_privilege_user_block_handler ");
  EXPECT_EQ(closed,
            "zorvd_db_handler zorvd_db_conn_client_handler zorvd_db_list_handler "
            "zorvd_db_privilege_user_block_handler ");
}

std::string mode_of(const char* path) {
  struct stat about {};
  EXPECT_EQ(stat((harness::test_root() + path).c_str(), &about), 0) << path;
  char text[16];
  snprintf(text, sizeof text, "%o", about.st_mode & 07777U);
  return text;
}

TEST(DaemonEntry, DaemonizedProcessHasItsStreamsItsMaskAndItsPidFile) {
  harness::write_file(kPidFile, "0123456789012345\n");
  Detached daemon("umask 077; ");
  ASSERT_EQ(daemon.status, 0);
  ASSERT_TRUE(daemon.serving);
  const std::string text = harness::read_file(kPidFile);
  EXPECT_EQ(text.substr(0, text.find('\n')), std::to_string(daemon.pid));
  EXPECT_EQ(text.size(), 17U) << "what a longer file held behind stays";
  EXPECT_NE(getsid(daemon.pid), getsid(0));
  EXPECT_NE(getsid(daemon.pid), daemon.pid) << "no leader, which a terminal could come to";
  EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(daemon.pid) + "/cwd"), "/");
  // 0 is what the test handed down; the three streams follow it, then the PID file.
  EXPECT_NE(daemon.descriptor(0), "/dev/null");
  for (int stream : {1, 2, 3}) {
    EXPECT_EQ(daemon.descriptor(stream), "/dev/null") << stream;
  }
  EXPECT_EQ(daemon.descriptor(4), harness::test_root() + kPidFile);
  // The mask that it was started with is not the one it works with.
  EXPECT_EQ(mode_of(harness::kDatabase), "644");
  EXPECT_EQ(mode_of("/late.log"), "666");

  // Each process of the second daemon holds its standard input: all are gone when that ends.
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const std::string command = daemonizing() + " <&";
  EXPECT_EQ(harness::run({"/bin/sh", "-c", command + std::to_string(ends[1])}).status, 0)
      << "its first process leaves before the lock";
  close(ends[1]);
  pollfd end{ends[0], POLLIN, 0};
  EXPECT_EQ(poll(&end, 1, 20'000), 1) << "the second one gives up at the lock";
  close(ends[0]);
  EXPECT_EQ(kill(daemon.pid, 0), 0);
  EXPECT_EQ(harness::read_file(kPidFile), text) << "the second one left the file as it was";
  daemon.end(SIGINT);
  EXPECT_FALSE(std::filesystem::exists(harness::test_root() + kPidFile));
  EXPECT_NE(harness::read_file("/late.log").find("Stopped "), std::string::npos);
}

TEST(DaemonEntry, RelativeRootIsTheCallersAlsoForTools) {
  harness::install_notify();
  const std::filesystem::path root = harness::test_root();
  const Detached daemon("umask 077; cd " + root.parent_path().string() +
                        " && export ZORV_ROOT=" + root.filename().string() + "; ");
  ASSERT_TRUE(daemon.serving);
  EXPECT_EQ(mode_of(kPidFile), "640");
  db_conn_server_log record{};
  record.vpn_type = zorv::OVPN_SERVER_TYPE;
  record.action = zorv::kLoginOk;
  EXPECT_EQ(zorv_api::insert(zorv::kServerLog, &record), KX_SUCCESS);
  EXPECT_EQ(harness::notifications(1).size(), 1U);
}

TEST(DaemonEntry, ASecondOneFindsTheAddressTakenAndLeaves) {
  harness::Daemon daemon;
  EXPECT_EQ(harness::run({harness::program("zorvd")}).status, 0);
  const auto lines = harness::log_texts("kxbus");
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(lines[0].starts_with("WARN ") && lines[0].ends_with("\n")) << lines[0];
  EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
