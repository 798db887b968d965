// The daemon's entry: options, daemonising, PID file, signals, configuration file, and the order in
// which the tables are opened, the bus served and the tables closed.
//
// Signals come as callbacks of the bus loop, not as interrupts, so handle_signal may log and stop
// the server. This file shares its state between main and handle_signal without a lock: both run on
// the one thread.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "close_from.h"
#include "kxbus.h"
#include "logger.h"
#include "rooted.h"
#include "zorv_api_db.h"
#include "zorvd_handler.h"
#include "zorvd_tables.h"

namespace {

LogModule log_module{"zorvd"};

constexpr int kBacklogUnits = 4;
constexpr int kDispatchers = 1;
constexpr mode_t kPidFileMode = 0640;

const char* app_name = nullptr;
std::optional<std::string> conf_file_name;
std::optional<std::string> pid_file_name;
int pid_fd = -1;
kx_server* handle = nullptr;
int running = 0;
int delay = 1;  // the configuration file's one value; read and kept, nothing depends on it

struct CloseFile {
  void operator()(FILE* file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

File open_for_reading(const std::string& path) {
  return File(fopen(os::rooted(path).c_str(), "re"));
}

void print_help() {
  printf("\n Usage: %s [OPTIONS]\n\n", app_name);
  puts("  Options:");
  puts("   -h --help                 Print this help");
  puts("   -c --conf_file filename   Read configuration from the file");
  puts("   -t --test_conf filename   Test configuration file");
  puts("   -l --log_file  filename   Write logs to the file");
  puts("   -d --daemon               Daemonize this application");
  puts("   -p --pid_file  filename   PID file used by daemonized app");
  puts("");
}

int read_conf_file(int reload) {
  if (!conf_file_name) {
    return 0;
  }
  const File file = open_for_reading(*conf_file_name);
  if (file == nullptr) {
    ZORV_LOG(error, "Can not open config file: %s, error: %s", conf_file_name->c_str(),
             strerror(errno));
    return -1;
  }
  const int items = fscanf(file.get(), "%d", &delay);
  // At the highest level, so that it shows at every threshold.
  if (items == 1 && reload == 1) {
    ZORV_LOG(error, "Reloaded configuration file %s of %s", conf_file_name->c_str(), app_name);
  } else if (items == 1) {
    ZORV_LOG(error, "Configuration of %s read from file %s", app_name, conf_file_name->c_str());
  }
  return items;
}

int test_conf_file(const char* path) {
  const File file = open_for_reading(path);
  if (file == nullptr) {
    ZORV_LOG(error, "Can't read config file %s\n", path);
    return 1;
  }
  if (fscanf(file.get(), "%d", &delay) < 1) {
    ZORV_LOG(error, "Wrong config file %s\n", path);
    return 1;
  }
  return 0;
}

void handle_signal(int sig) {
  ZORV_LOG(debug, "sig = %d\n", sig);
  if (sig == SIGINT || sig == SIGTERM) {
    ZORV_LOG(info, "Debug: stopping daemon ...\n");
    if (pid_fd != -1) {
      [[maybe_unused]] const int unlocked = lockf(pid_fd, F_ULOCK, 0);
      close(pid_fd);
      pid_fd = -1;
    }
    if (pid_file_name) {
      // Also one that this process did not write, having stayed in the foreground.
      unlink(os::rooted(*pid_file_name).c_str());
    }
    running = 0;
    if (handle != nullptr) {
      kx_stop(handle);
    }
  } else if (sig == SIGHUP) {
    ZORV_LOG(info, "Debug: reloading daemon config file ...\n");
    read_conf_file(1);
  } else if (sig == SIGCHLD) {
    ZORV_LOG(info, "Debug: received SIGCHLD signal\n");
  }
}

void fork_and_leave() {
  const pid_t child = fork();
  if (child != 0) {
    exit(child < 0 ? EXIT_FAILURE : EXIT_SUCCESS);
  }
}

// The streams get the lowest free descriptors. Where descriptor 0 was open it still is the
// parent's, and the streams are 1, 2 and 3.
void reopen_streams() {
  stdin = fopen("/dev/null", "r");
  stdout = fopen("/dev/null", "w+");
  stderr = fopen("/dev/null", "w+");
}

void write_pid_file() {
  pid_fd = open(os::rooted(*pid_file_name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kPidFileMode);
  if (pid_fd < 0 || lockf(pid_fd, F_TLOCK, 0) < 0) {
    exit(EXIT_FAILURE);
  }
  char text[256];
  const int length = snprintf(text, sizeof text, "%d\n", getpid());
  [[maybe_unused]] const ssize_t written = write(pid_fd, text, static_cast<size_t>(length));
}

void daemonize() {
  fork_and_leave();
  if (setsid() < 0) {
    exit(EXIT_FAILURE);
  }
  signal(SIGCHLD, SIG_IGN);
  fork_and_leave();
  umask(0);
  // A relative root is the caller's, not one below "/", also for the tools that are started.
  if (const std::string& root = os::root(); !root.empty()) {
    setenv("ZORV_ROOT", root.c_str(), 1);
  }
  [[maybe_unused]] const int moved = chdir("/");
  os::close_from(1);  // 0 stays open
  reopen_streams();
  if (pid_file_name) {
    write_pid_file();
  }
}

void log_to(const std::string& path) {
  __cur_type__ = kLogToFile;
  snprintf(__log_file__, sizeof __log_file__, "%s", path.c_str());
}

void log_bus_message(const char* text) {
  static LogModule bus_module{"kxbus"};
  ZORV_LOG_FOR(bus_module, warn, "%s\n", text);
}

struct Options {
  std::optional<int> exit_status;  // set when an option already did the work
  bool daemon = false;
  std::optional<std::string> log_file;
};

constexpr const char* kShortOptions = "c:l:t:p:dh";
constexpr option kLongOptions[] = {
    {"conf_file", required_argument, nullptr, 'c'},
    {"test_conf", required_argument, nullptr, 't'},
    {"log_file", required_argument, nullptr, 'l'},
    {"help", no_argument, nullptr, 'h'},
    {"daemon", no_argument, nullptr, 'd'},
    {"pid_file", required_argument, nullptr, 'p'},
    {nullptr, 0, nullptr, 0},
};

Options parse_options(int argc, char** argv) {
  Options options;
  int letter = 0;
  while (!options.exit_status &&
         (letter = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr)) != -1) {
    switch (letter) {
      case 'c':
        conf_file_name = optarg;
        break;
      case 't':
        options.exit_status = test_conf_file(optarg);
        break;
      case 'l':
        options.log_file = optarg;
        break;
      case 'h':
        print_help();
        options.exit_status = EXIT_SUCCESS;
        break;
      case 'd':
        options.daemon = true;
        break;
      case 'p':
        pid_file_name = optarg;
        break;
      default:
        print_help();
        options.exit_status = EXIT_FAILURE;
        break;
    }
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  ZORV_LOG(debug, "Hello ZORVD\n");
  app_name = argv[0];
  const Options options = parse_options(argc, argv);
  if (options.exit_status) {
    return *options.exit_status;
  }
  if (options.daemon) {
    daemonize();
  }
  openlog(argv[0], LOG_CONS | LOG_PID, LOG_DAEMON);
  ZORV_LOG(info, "Started %s\n", app_name);
  kx_set_log(log_bus_message);
  kx_signal(SIGINT, handle_signal);
  kx_signal(SIGHUP, handle_signal);
  kx_signal(SIGTERM, handle_signal);
  if (options.log_file) {
    log_to(*options.log_file);
  }
  read_conf_file(0);
  running = 1;
  ZORV_LOG(info, "kx_start\n");
  store::open_tables();
  handle = kx_create(kZorvdAddress, kBacklogUnits, kDispatchers, zorvd_method_handler);
  kx_start(handle);
  kx_free(handle);
  handle = nullptr;

  store::close_tables();
  ZORV_LOG(info, "Stopped %s", app_name);
  closelog();
  return EXIT_SUCCESS;
}
