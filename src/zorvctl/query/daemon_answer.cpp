#include "daemon_answer.h"

#include <sys/un.h>

#include <string_view>

#include "exit_status.h"
#include "kxbus.h"
#include "rooted.h"
#include "zorv_api_db.h"

namespace zorvctl {
namespace {

struct Answer {
  bool unreachable;
  const char* text;
};

// In the order of kx_status.
constexpr Answer kAnswers[] = {
    {false, "done"},
    {true, "the daemon did not answer in time"},
    {true, "the daemon is not running"},
    {true, "the daemon is stopping"},
    {false,
     "the daemon failed, as its log says, or serves other users, or is run by a user whom this one "
     "does not trust"},
    {true, "the connection to the daemon broke"},
    {true, "the daemon is too busy"},
    {false, "the daemon does not know this request"},
};
static_assert(KX_IS_INVALID + 1 == std::size(kAnswers));

bool is_root_too_long() {
  constexpr std::string_view kName = kZorvdAddress + 1;  // behind the '@'
  return os::root().size() + kName.size() > sizeof(sockaddr_un::sun_path) - 1;
}

const Answer& answer_of(int bus_status) {
  static constexpr Answer kTooLong{true, "ZORV_ROOT is too long for the daemon's address"};
  if (bus_status != KX_SUCCESS && is_root_too_long()) {
    return kTooLong;
  }
  static constexpr Answer kUnknown{false, "the bus gave an unknown status"};
  return bus_status >= 0 && bus_status <= KX_IS_INVALID ? kAnswers[bus_status] : kUnknown;
}

}  // namespace

const char* status_text(int bus_status) {
  return answer_of(bus_status).text;
}

bool is_unreachable(int bus_status) {
  return answer_of(bus_status).unreachable;
}

int report_status(int bus_status, const char* what) {
  if (bus_status == KX_SUCCESS) {
    return kDone;
  }
  complain("cannot {}: {}", what, status_text(bus_status));
  return is_unreachable(bus_status) ? kUnreachable : kFailed;
}

int report_query_end(QueryEnd end, const char* what) {
  switch (end) {
    case QueryEnd::unanswered:
      return report_status(probe_daemon(), what);
    case QueryEnd::late:
      return report_status(KX_TIMEOUT, what);
    case QueryEnd::unread:
      complain("cannot {}: the daemon could not read its table, its log says why", what);
      return kFailed;
    case QueryEnd::complete:
    case QueryEnd::more:
      break;
  }
  return kDone;
}

int probe_daemon(const CallTime& time) {
  if (time.ran_out()) {
    return KX_TIMEOUT;
  }
  constexpr int kTimeoutSeconds = 5;
  const kx_io_owner io(kx_io_create());
  if (io == nullptr) {
    return KX_IO_FAILURE;
  }
  const int status = kx_call(kZorvdAddress, "zorvctl_probe", io.get(), kTimeoutSeconds, -1);
  // The daemon lives: what it was asked before, it refused.
  return status == KX_IS_INVALID || status == KX_SUCCESS ? KX_IS_REJECT : status;
}

}  // namespace zorvctl
