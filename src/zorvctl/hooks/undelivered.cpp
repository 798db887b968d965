#include "undelivered.h"

#include <cstring>

#include "daemon_answer.h"
#include "display_text.h"
#include "exit_status.h"
#include "spool.h"

namespace zorvctl {

void keep_undelivered(int status, const zorv::TableSchema& table, const void* record,
                      std::string_view what, std::string_view user) {
  using namespace zorv::spool;
  if (status == 0) {
    return;
  }
  if (!is_undelivered(status)) {
    complain("hook: {} of {} is not recorded: {}", what, display_text(user), status_text(status));
    return;
  }
  size_t dropped = 0;
  if (const int error = keep(table, record, dropped); error != 0) {
    complain("hook: {} of {} is not recorded: {}; nor can it wait in {}: {}", what,
             display_text(user), status_text(status), kFolder, std::strerror(error));
    return;
  }
  complain("hook: {} of {} waits in {}: {}", what, display_text(user), kFolder,
           status_text(status));
  if (dropped != 0) {
    complain("hook: {} is full: the oldest record in it is lost", kFolder);
  }
}

}  // namespace zorvctl
