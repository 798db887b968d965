// The catalogue of notification-centre messages, and their sending through the platform's tool.
#pragma once

#include <array>
#include <cstddef>

namespace zorv {

struct nc_msg_struct {
  const char* category_id;
  const char* message_id;  // four digits; unique only within its category
  const char* level;       // "info", "warn" or "error"
  const char* message;     // template; {0} is the application's name, {1}, ... the values
};

// Names of the catalogue's entries, in its order: CATEGORY_MESSAGE.
enum class NcMsg : std::size_t {
  C001_0001,
  C001_0002,
  C001_0003,
  C001_0004,
  C001_0005,
  C002_0006,
  C002_0007,
  C002_0008,
  C002_0009,
  C002_0010,
  C002_0011,
  C002_0012,
  C002_0013,
  C003_0014,
  C003_0015,
  C003_0016,
  C001_0017,
  C002_0018,
  C001_0019,
  C001_0020,
  C001_0021,
  C001_0022,
  C001_0023,
  C001_0024,
  C001_0025,
  C002_0026,
  C002_0027,
  C002_0028,
  C001_0029,
  C001_0030,
  C001_0031,
  C001_0032,
  C001_0033,
  C001_0034,
  C004_0031,
  C004_0032,
  C004_0036,
  C004_0037,
  C004_0038,
  C004_0039,
  C004_0040,
  count
};

inline constexpr std::size_t kNcMsgCount = static_cast<std::size_t>(NcMsg::count);

extern const std::array<nc_msg_struct, kNcMsgCount> __NC_MSG_DB__;

inline const nc_msg_struct* nc_msg(NcMsg name) {
  return &__NC_MSG_DB__[static_cast<std::size_t>(name)];
}

namespace nclog {

// Runs the notification tool with the entry and the value texts that follow, which end with a null
// pointer; at most 12 are passed on. Returns as soon as the tool has been set going, detached, with
// no descriptor of this process; a failure is not reported. Callable from any thread.
void notify_send(const nc_msg_struct* msg, ...) __attribute__((sentinel));

}  // namespace nclog
}  // namespace zorv
