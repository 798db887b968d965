#include "zorvd_mobile.h"

#include <fcntl.h>
#include <unistd.h>

#include "logger.h"
#include "zorv_records.h"

namespace {

LogModule log_module{"zorvd_mobile"};

// The kernel's file, not one of the system's own: the same below every root.
constexpr const char* kKernelUuid = "/proc/sys/kernel/random/uuid";
constexpr size_t kKernelUuidLength = 36;
constexpr size_t kDigits = 32;
constexpr char kMark[] = {'%', 'Z', '?'};
static_assert(kDigits + sizeof kMark < sizeof(zorv_mobile_gen_uuid_data_get));

int uuid_gen(char* out) {
  char text[kKernelUuidLength + 1] = {};
  const int fd = open(kKernelUuid, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    ZORV_LOG(error, "open uuid failed");
    return -1;
  }
  // A short read leaves zero bytes, which are copied like digits.
  [[maybe_unused]] const ssize_t ignored = read(fd, text, kKernelUuidLength);
  close(fd);
  ZORV_LOG(debug, "_uuid_str = %s", text);
  size_t copied = 0;
  for (size_t i = 0; i < kKernelUuidLength; ++i) {
    if (text[i] != '-' && copied < kDigits) {
      out[copied++] = text[i];
    }
  }
  out[copied] = '\0';
  return 0;
}

}  // namespace

int zorv_uuid_gen(char* out) {
  if (uuid_gen(out) != 0) {
    ZORV_LOG(debug, "uuid_gen () failed");
    return -1;
  }
  for (size_t i = 0; i < sizeof kMark; ++i) {
    out[kDigits + i] = kMark[i];
  }
  return 0;
}

int zorv_mobile_gen_zorv_uuid(kx_io* io) {
  ZORV_LOG(debug, "zorv_mobile_client_data_get_imp\n");
  zorv_mobile_gen_uuid_data_get answer{};
  if (zorv_uuid_gen(answer.zorv_uuid) != 0) {
    ZORV_LOG(debug, "zorv_uuid_gen failed\n");
  }
  kx_io_realloc(io, 0);
  kx_io_write(io, &answer, sizeof answer);
  kx_reply(io);
  return 0;
}
