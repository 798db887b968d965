#include "stand_ins.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "detached_spawn.h"
#include "kxbus.h"
#include "logger.h"
#include "rooted.h"

namespace {

// Reads every argument to its end, as exec does.
size_t length_of_all(const char* const* arguments) {
  size_t length = 0;
  for (; *arguments != nullptr; ++arguments) {
    length += strlen(*arguments);
  }
  return length;
}

}  // namespace

void os::spawn_detached(const char* file, const char* const* arguments) {
  fuzz::require(strlen(file) > 0 && length_of_all(arguments) > 0, "the tool has arguments");
  ++fuzz::spawned;
}

int kx_call(const char* address, const char* method, kx_io* io, int timeout_s, int fd) {
  fuzz::require(strlen(address) > 0 && strlen(method) > 0 && timeout_s == 5 && fd == -1,
                "a call as every caller makes it");
  if (fuzz::replies.empty()) {
    return KX_NOT_READY;
  }
  const std::string reply = std::move(fuzz::replies.front());
  fuzz::replies.pop_front();
  kx_io_realloc(io, 0);
  return kx_io_write(io, reply.data(), reply.size());
}

namespace fuzz {

void prepare() {
  require(!os::root().empty() && std::filesystem::is_directory(os::root()),
          "ZORV_ROOT names a folder; script/fuzz makes one");
  for (const char* folder : {"/etc/config/zorv", "/var/lock"}) {
    std::filesystem::create_directories(os::rooted(folder));
  }
  __cur_type__ = kLogToStdout;
  require(freopen("/dev/null", "w", stdout) != nullptr, "/dev/null can be written");
}

void require(bool holds, const char* what) {
  if (!holds) {
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
  }
}

std::vector<std::string> split(std::string_view input, char separator) {
  std::vector<std::string> parts;
  for (size_t end = 0; end != std::string_view::npos; input.remove_prefix(end + 1)) {
    end = input.find(separator);
    parts.emplace_back(input.substr(0, end));
    if (end == std::string_view::npos) {
      break;
    }
  }
  return parts;
}

}  // namespace fuzz
