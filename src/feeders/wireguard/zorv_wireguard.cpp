// zorv-wireguard INTERFACE...: records the sessions of WireGuard interfaces.

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <deque>

#include "rooted.h"
#include "watcher.h"

namespace {

using wireguard::Watcher;

// As the kernel has it, and so that it names a file.
std::string check_interface(const std::string& name) {
  const bool is_name = !name.empty() && name.size() < 16 && name != "." && name != ".." &&
                       name.find_first_of("/: \t\n") == std::string::npos;
  return is_name ? "" : "'" + name + "' is no interface's name";
}

std::string check_file(const std::string& path) {
  return access(os::rooted(path).c_str(), R_OK) == 0 ? "" : path + ": " + std::strerror(errno);
}

// Until a signal says that it is enough.
void watch(std::deque<Watcher>& watchers, const sigset_t& ends, unsigned interval) {
  const timespec pause{static_cast<time_t>(interval), 0};
  int signal = 0;
  do {
    for (Watcher& watcher : watchers) {
      watcher.look();
    }
    signal = sigtimedwait(&ends, nullptr, &pause);
  } while (signal < 0);
}

int run(int count, char** words) {
  CLI::App program("Records the sessions of WireGuard interfaces as connections to this machine.",
                   "zorv-wireguard");
  std::vector<std::string> interfaces;
  wireguard::Places places{"", "/etc/wireguard", "/var/lib/zorv-wireguard"};
  unsigned interval = 5;
  bool once = false;
  program.add_option("INTERFACE", interfaces, "The server interfaces, such as wg0")
      ->required()
      ->check(check_interface);
  program.add_option("--names", places.names_file, "Names of peers: a file of lines 'KEY NAME'")
      ->check(check_file);
  program
      .add_option("--quick", places.quick_folder,
                  "The folder of wg-quick's files, where a comment above [Peer] names the peer")
      ->capture_default_str();
  program.add_option("--state", places.state_folder, "The folder that keeps what is open")
      ->capture_default_str();
  program.add_option("--interval", interval, "Seconds from one look to the next")
      ->check(CLI::Range(1, 60))
      ->capture_default_str();
  program.add_flag("--once", once, "Look once and end; 1 if something is left to be done");
  program.set_version_flag("--version", "zorv-wireguard " ZORV_VERSION, "Print the version");
  try {
    program.parse(count, words);
  } catch (const CLI::ParseError& error) {
    return program.exit(error) == 0 ? 0 : 2;
  }

  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  std::deque<Watcher> watchers;
  for (const std::string& interface : interfaces) {
    if (!watchers.emplace_back(interface, places).open()) {
      return 1;
    }
  }
  bool is_done = true;
  if (once) {
    for (Watcher& watcher : watchers) {
      is_done = watcher.look() && is_done;
    }
  } else {
    watch(watchers, ends, interval);
  }
  for (Watcher& watcher : watchers) {
    is_done = watcher.save() && is_done;
  }
  return is_done ? 0 : 1;
}

}  // namespace

int main(int count, char** words) {
  try {
    return run(count, words);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zorv-wireguard: %s\n", error.what());
    return 1;
  }
}
