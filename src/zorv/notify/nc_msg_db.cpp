#include "nc_msg_db.h"

#include <cstdarg>
#include <cstddef>
#include <string>

#include "detached_spawn.h"
#include "rooted.h"

namespace zorv::nclog {
namespace {

constexpr const char* kNotifyTool = "/usr/local/sbin/notify";
constexpr size_t kFixedWords = 14;
constexpr size_t kMostValues = 12;

}  // namespace

void notify_send(const nc_msg_struct* msg, ...) {
  static const std::string tool = os::rooted(kNotifyTool);
  const char* words[kFixedWords + kMostValues + 1] = {
      kNotifyTool,     "send", "-A",       "A238", "-C", msg->category_id, "-M",
      msg->message_id, "-l",   msg->level, "-t",   "3",  msg->message,     "ZORV Service"};
  va_list values;
  va_start(values, msg);
  for (size_t slot = kFixedWords; slot < kFixedWords + kMostValues; ++slot) {
    words[slot] = va_arg(values, const char*);
    if (words[slot] == nullptr) {
      break;
    }
  }
  va_end(values);
  os::spawn_detached(tool.c_str(), words);
}

}  // namespace zorv::nclog
