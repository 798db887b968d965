#include "harness/fake_service.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "harness/test_root.h"
#include "kxbus.h"

namespace harness {
namespace {

// The child's; its callback is a plain function.
std::map<std::string, FakeService::Answer> known_answers;
std::string record_path;

void answer_request(const char* method, kx_io* io, int fd) {
  if (fd >= 0) {
    close(fd);
  }
  const auto known = known_answers.find(method);
  if (known == known_answers.end()) {
    return;
  }
  size_t length = 0;
  const auto* request = static_cast<const char*>(kx_io_read(io, &length));
  std::ofstream(record_path, std::ios::app)
      << method << ' ' << std::string(request != nullptr ? request : "", length) << std::endl;
  const std::optional<std::string> reply = known->second();
  if (reply.has_value()) {
    kx_io_realloc(io, 0);
    kx_io_write(io, reply->data(), reply->size());
    kx_reply(io);
  }
  kx_io_free(io);
}

[[noreturn]] void serve(const char* address, int ready) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  kx_server* const server = kx_create(address, 4, 1, answer_request);
  if (server != nullptr && write(ready, "+", 1) == 1) {
    close(ready);
    kx_start(server);
  }
  _exit(1);
}

}  // namespace

FakeService::FakeService(const char* address, std::map<std::string, Answer> answers)
    : record_(test_root() + "/calls." + address) {
  std::filesystem::remove(record_);
  int ends[2];
  if (pipe(ends) != 0) {
    throw std::runtime_error("no pipe");
  }
  child_.emplace([&]() -> int {
    known_answers = std::move(answers);
    record_path = record_;
    close(ends[0]);
    serve(address, ends[1]);
  });
  close(ends[1]);
  char ready = 0;
  const bool is_serving = read(ends[0], &ready, 1) == 1;
  close(ends[0]);
  if (!is_serving) {
    throw std::runtime_error(std::string("cannot serve ") + address);
  }
}

FakeService::FakeService(const char* address, const char* method,
                         const std::optional<std::string>& reply)
    : FakeService(address, {{method, [reply] { return reply; }}}) {}

std::vector<std::string> FakeService::calls() const {
  std::vector<std::string> calls;
  std::ifstream record(record_);
  for (std::string line; std::getline(record, line);) {
    calls.push_back(line);
  }
  return calls;
}

}  // namespace harness
