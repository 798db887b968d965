#include "wg_run.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "descriptor.h"

namespace wireguard {
namespace {

constexpr size_t kLargestDump = size_t{16} << 20;
constexpr std::chrono::seconds kPatience{5};

// Everything up to the end of file. False when it took too long or is too much.
bool read_all(int descriptor, std::string* ret_text) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  std::string text;
  char part[8192];
  while (text.size() < kLargestDump) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd ready{descriptor, POLLIN, 0};
    if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) == 0) {
      return false;
    }
    const ssize_t count = read(descriptor, part, sizeof part);
    if (count == 0) {
      *ret_text = std::move(text);
      return true;
    }
    if (count > 0) {
      text.append(part, static_cast<size_t>(count));
    } else if (errno != EINTR) {
      return false;
    }
  }
  return false;
}

// wg with the output going to `output`, and with no signal blocked. -1 when it could not be
// started.
pid_t start(const std::string& interface, int output, bool quiet) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  if (quiet) {
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  }
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  const char* const words[] = {"wg", "show", interface.c_str(), "dump", nullptr};
  pid_t child = -1;
  const int error = posix_spawnp(&child, words[0], &actions, &attributes,
                                 const_cast<char* const*>(words), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? child : -1;
}

}  // namespace

std::optional<std::vector<Peer>> dump_interface(const std::string& interface, bool quiet) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return std::nullopt;
  }
  const os::Descriptor input(ends[0]);
  os::Descriptor output(ends[1]);
  const pid_t child = start(interface, output.get(), quiet);
  output.reset();
  if (child < 0) {
    return std::nullopt;
  }
  std::string text;
  const bool whole = read_all(input.get(), &text);
  if (!whole) {
    kill(child, SIGKILL);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return whole && status == 0 ? read_dump(text) : std::nullopt;
}

}  // namespace wireguard
