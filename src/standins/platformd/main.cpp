// platformd: the stand-in for the NAS's services that the VPN service calls over the bus.
//
// Serves "vpncaas" on the main thread and "NetworkService" on another until SIGTERM, SIGINT or
// SIGHUP, then exits 0. One whose address is taken is tried again every few seconds, while the
// other is served; without any the exit status is 1. Both end together: when one cannot go on, the
// other is stopped too and the exit status is 1. Runs in the foreground; "platformd: ready" on
// standard output says that what can be served is.
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "descriptor.h"
#include "kxbus.h"
#include "rooted.h"
#include "services.h"

namespace {

constexpr const char* kUsage =
    "Usage: platformd [--state FILE] [--log-file FILE]\n"
    "Serves the platform's bus services vpncaas and NetworkService in the foreground.\n"
    "\n"
    "  --state FILE     network interfaces and gateways (/etc/config/network_state.json)\n"
    "  --log-file FILE  log there instead of on standard error\n"
    "  -h, --help       show this text\n"
    "  -V, --version    show the version\n";

struct KxServerRelease {
  void operator()(kx_server* server) const { kx_free(server); }
};
using KxServer = std::unique_ptr<kx_server, KxServerRelease>;

constexpr std::chrono::seconds kRetryPause{5};

struct Service {
  const char* address;
  kx_method_callback callback;
  KxServer server{};  // null while its address is taken
};

// Both loops, and the signals' callback in one of them, meet here.
std::mutex mutex;
std::condition_variable stop_wanted;
bool stopping = false;
std::array<Service, 2> services = {Service{"vpncaas", platformd::config_service_call},
                                   Service{"NetworkService", platformd::network_service_call}};

void stop_all(int /*signal_number*/) {
  const std::lock_guard lock(mutex);
  stopping = true;
  stop_wanted.notify_all();
  for (const Service& service : services) {
    kx_stop(service.server.get());
  }
}

void open_address(Service& service) {
  service.server.reset(kx_create(service.address, 4, 1, service.callback));  // the bus logs why not
}

// True when the service is to be served, false when all is to end.
bool wait_for_address(Service& service) {
  std::unique_lock lock(mutex);
  while (!stopping && service.server == nullptr) {
    if (!stop_wanted.wait_for(lock, kRetryPause, [] { return stopping; })) {
      open_address(service);
    }
  }
  return !stopping;
}

int run(Service& service) {
  const int status = wait_for_address(service) ? kx_start(service.server.get()) : KX_SUCCESS;
  stop_all(0);
  return status;
}

int serve_until_stopped() {
  kx_set_log([](const char* text) { platformd::log_line(std::string("bus: ") + text); });
  for (Service& service : services) {
    open_address(service);
  }
  if (services[0].server == nullptr && services[1].server == nullptr) {
    return 1;
  }
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    if (kx_signal(number, stop_all) != KX_SUCCESS) {
      platformd::log_line("cannot route signal " + std::to_string(number));
      return 1;
    }
  }
  int network_status = KX_SUCCESS;
  std::thread network([&network_status] { network_status = run(services[1]); });
  puts("platformd: ready");
  fflush(stdout);
  const int config_status = run(services[0]);
  network.join();
  for (Service& service : services) {
    service.server.reset();
  }
  platformd::log_line("stopped");
  return config_status == KX_SUCCESS && network_status == KX_SUCCESS ? 0 : 1;
}

int log_to_file(const char* path) {
  const os::Descriptor file(
      open(os::rooted(path).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC, 0640));
  return file.valid() && dup2(file.get(), STDERR_FILENO) >= 0 ? 0 : -1;
}

int wrong_usage(const char* reason, const char* value) {
  fprintf(stderr, "platformd: %s: %s\n%s", reason, value, kUsage);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  constexpr option kOptions[] = {{"state", required_argument, nullptr, 's'},
                                 {"log-file", required_argument, nullptr, 'l'},
                                 {"help", no_argument, nullptr, 'h'},
                                 {"version", no_argument, nullptr, 'V'},
                                 {nullptr, 0, nullptr, 0}};
  const char* log_file = nullptr;
  for (int choice = 0; (choice = getopt_long(argc, argv, "hV", kOptions, nullptr)) != -1;) {
    if (choice == 's') {
      platformd::set_state_file(optarg);
    } else if (choice == 'l') {
      log_file = optarg;
    } else if (choice == 'h') {
      fputs(kUsage, stdout);
      return 0;
    } else if (choice == 'V') {
      puts("platformd " PLATFORMD_VERSION);
      return 0;
    } else {
      fputs(kUsage, stderr);
      return 2;
    }
    if ((choice == 's' || choice == 'l') && optarg[0] != '/') {
      return wrong_usage("not an absolute path", optarg);
    }
  }
  if (optind < argc) {
    return wrong_usage("unexpected word", argv[optind]);
  }
  if (log_file != nullptr && log_to_file(log_file) != 0) {
    fprintf(stderr, "platformd: %s: %s\n", log_file, strerror(errno));
    return 1;
  }
  return serve_until_stopped();
}
