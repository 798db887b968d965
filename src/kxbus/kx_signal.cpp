#include "kx_signal.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <mutex>

#include "kxbus.h"

namespace {

constexpr int kSignals = 65;

std::atomic<int> event_descriptor{-1};
std::atomic<bool> arrived[kSignals];
std::atomic<kx_signal_callback> callbacks[kSignals];
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void on_signal(int number) {
  const int saved = errno;
  const std::uint64_t one = 1;
  arrived[number] = true;
  [[maybe_unused]] const ssize_t written = write(event_descriptor, &one, sizeof one);
  errno = saved;
}

}  // namespace

namespace kxbus {

int signal_descriptor() {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  if (event_descriptor < 0) {
    event_descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  }
  return event_descriptor;
}

void deliver_signals() {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t taken = read(event_descriptor, &count, sizeof count);
  for (int number = 1; number < kSignals; ++number) {
    if (arrived[number].load(std::memory_order_relaxed) && arrived[number].exchange(false)) {
      if (kx_signal_callback callback = callbacks[number]) {
        callback(number);
      }
    }
  }
}

}  // namespace kxbus

int kx_signal(int signal_number, kx_signal_callback callback) {
  if (signal_number < 1 || signal_number >= kSignals) {
    return KX_IS_INVALID;
  }
  if (kxbus::signal_descriptor() < 0) {
    return errno == EMFILE || errno == ENFILE ? KX_IS_BUSY : KX_IO_FAILURE;
  }
  struct sigaction action {};
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  action.sa_handler = callback != nullptr ? on_signal : SIG_DFL;
  const kx_signal_callback before = callbacks[signal_number].exchange(callback);
  if (sigaction(signal_number, &action, nullptr) != 0) {
    callbacks[signal_number] = before;
    return KX_IS_INVALID;
  }
  return KX_SUCCESS;
}
