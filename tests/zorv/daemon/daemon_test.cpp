// The daemon's entry: options, daemonising, the PID file, signals and the configuration file.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "harness/daemon.h"
#include "harness/test_root.h"

namespace {

using harness::eventually;
using harness::Outcome;

constexpr const char* kPidFile = "/var/run/zorvd.pid";

std::string daemonizing() {
  return "exec " + harness::program("zorvd") + " -d -p " + kPidFile;
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
  const std::string help = "\n Usage: " + name +
                           " [OPTIONS]\n\n"
                           "  Options:\n"
                           "   -h --help                 Print this help\n"
                           "   -c --conf_file filename   Read configuration from the file\n"
                           "   -t --test_conf filename   Test configuration file\n"
                           "   -l --log_file  filename   Write logs to the file\n"
                           "   -d --daemon               Daemonize this application\n"
                           "   -p --pid_file  filename   PID file used by daemonized app\n"
                           "\n";
  for (const char* option : {"-h", "--help"}) {
    const Outcome outcome = harness::run({name, option});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, help);
  }
  for (const char* option : {"-x", "--nonsense", "-c"}) {
    const Outcome outcome = harness::run({name, option});
    EXPECT_EQ(outcome.status, 1) << option;
    EXPECT_EQ(outcome.out, help) << option;
  }
}

TEST(DaemonEntry, ConfigurationFileTest) {
  struct Case {
    const char* content;  // null: no file
    int status;
    const char* message;
  };
  const std::string name = harness::program("zorvd");
  for (const Case& c : {
           Case{"5\nand more", 0, nullptr},
           Case{"  -12", 0, nullptr},
           Case{"", 1, "Wrong config file /etc/config/zorvd.conf\n"},
           Case{"delay=5", 1, "Wrong config file /etc/config/zorvd.conf\n"},
           Case{nullptr, 1, "Can't read config file /etc/config/zorvd.conf\n"},
       }) {
    std::filesystem::remove(harness::test_root() + "/etc/config/zorvd.conf");
    std::filesystem::remove(harness::test_root() + harness::kLogFile);
    if (c.content != nullptr) {
      harness::write_file("/etc/config/zorvd.conf", c.content);
    }
    // What stands behind -t is not looked at; -d before it does not make a daemon.
    EXPECT_EQ(harness::run({name, "-d", "-t", "/etc/config/zorvd.conf", "--nonsense"}).status,
              c.status);
    const std::vector<std::string> texts = harness::log_texts("zorvd");
    ASSERT_EQ(texts.size(), c.message != nullptr ? 2U : 1U);
    EXPECT_EQ(texts[0], "DEBUG Hello ZORVD\n");
    if (c.message != nullptr) {
      EXPECT_EQ(texts[1], std::string("ERROR ") + c.message);
    }
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

TEST(DaemonEntry, DaemonizedProcessHasItsStreamsAndItsPidFile) {
  harness::write_file(kPidFile, "0123456789012345\n");
  Detached daemon;
  ASSERT_EQ(daemon.status, 0);
  ASSERT_TRUE(daemon.serving);
  const std::string text = harness::read_file(kPidFile);
  EXPECT_EQ(text.substr(0, text.find('\n')), std::to_string(daemon.pid));
  EXPECT_EQ(text.size(), 17U) << "what a longer file held behind stays";
  EXPECT_EQ(getsid(daemon.pid) != getsid(0), true);
  // 0 is what the test handed down; the three streams follow it, then the PID file.
  EXPECT_NE(daemon.descriptor(0), "/dev/null");
  for (int stream : {1, 2, 3}) {
    EXPECT_EQ(daemon.descriptor(stream), "/dev/null") << stream;
  }
  EXPECT_EQ(daemon.descriptor(4), harness::test_root() + kPidFile);

  // Each process of the second daemon holds its standard input: all are gone when that ends.
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const std::string command = daemonizing() + " <&";
  EXPECT_EQ(harness::run({"/bin/sh", "-c", command + std::to_string(ends[1])}).status, 0)
      << "its first process leaves before the lock";
  close(ends[1]);
  char byte;
  EXPECT_EQ(read(ends[0], &byte, 1), 0);
  close(ends[0]);
  EXPECT_EQ(kill(daemon.pid, 0), 0);
  EXPECT_EQ(harness::read_file(kPidFile), text) << "the second one left the file as it was";
  daemon.end(SIGINT);
  EXPECT_FALSE(std::filesystem::exists(harness::test_root() + kPidFile));
  EXPECT_TRUE(harness::log_holds("Stopped "));
}

TEST(DaemonEntry, RelativeRootIsTheCallersAlsoForTools) {
  harness::install_notify();
  const std::filesystem::path root = harness::test_root();
  const Detached daemon("cd " + root.parent_path().string() +
                        " && export ZORV_ROOT=" + root.filename().string() + "; ");
  ASSERT_TRUE(daemon.serving);
  EXPECT_EQ(harness::zorvctl({"server-log", "add", "--vpn-type", "4", "--action", "2"}).status, 0);
  EXPECT_EQ(harness::notifications(1).size(), 1U);
}

TEST(DaemonEntry, LongLogPathIsCutTo255Characters) {
  const std::string folder = "/" + std::string(200, 'd');
  std::filesystem::create_directories(harness::test_root() + folder);
  const std::string path = folder + "/" + std::string(90, 'f');
  {
    harness::Daemon daemon({"-l", path});
    EXPECT_EQ(daemon.stop(), 0);
  }
  EXPECT_NE(harness::read_file(path.substr(0, 255)).find("kx_start\n"), std::string::npos);
}

}  // namespace
