#include "harness/fake_service.h"

#include <fstream>

#include "descriptor.h"
#include "kxbus.h"

namespace harness {
// The child's; its callback is a plain function.
static std::map<std::string, FakeService::Answer> known_answers;
static std::string record_path;

static void answer_request(const char* method, kx_io* io, int fd) {
  const os::Descriptor passed(fd);
  const auto known = known_answers.find(method);
  if (known == known_answers.end()) {
    return;
  }
  size_t length = 0;
  const auto* request = static_cast<const char*>(kx_io_read(io, &length));
  std::ofstream(record_path, std::ios::app)
      << method << ' ' << std::string_view(request, length) << std::endl;
  if (const std::optional<std::string> reply = known->second()) {
    kx_io_realloc(io, 0);
    kx_io_write(io, reply->data(), reply->size());
    kx_reply(io);
  }
  kx_io_free(io);
}

FakeService::FakeService(const char* address, std::map<std::string, Answer> answers) {
  static int count = 0;
  record_ = "/calls." + std::to_string(++count);
  // Made here, so that requests find it at once. The child serves it alone.
  kx_server* const server = kx_create(address, 4, 1, answer_request);
  child_.emplace([&] {
    known_answers = std::move(answers);
    record_path = test_root() + record_;
    return kx_start(server);
  });
  kx_free(server);
}

}  // namespace harness
