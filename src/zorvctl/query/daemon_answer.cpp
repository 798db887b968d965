#include "daemon_answer.h"

#include <sys/un.h>

#include <iterator>
#include <string_view>

#include "exit_status.h"
#include "kxbus.h"
#include "permission.h"
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

const Answer& answer_of(int status) {
  static constexpr Answer kTooLong{true, "ZORV_ROOT is too long for the daemon's address"};
  static constexpr Answer kNotRead{false, "the daemon could not read its table, its log says why"};
  static constexpr Answer kUnknown{false, "the bus gave an unknown status"};
  if (status == kTableNotRead) {
    return kNotRead;
  }
  if (status != KX_SUCCESS && is_root_too_long()) {
    return kTooLong;
  }
  return status >= 0 && status <= KX_IS_INVALID ? kAnswers[status] : kUnknown;
}

}  // namespace

const char* status_text(int status) {
  return answer_of(status).text;
}

int report_status(int status, const std::string& what) {
  if (status == KX_SUCCESS) {
    return kDone;
  }
  const Answer& answer = answer_of(status);
  const std::string missing = status == KX_IS_REJECT ? missing_permission() : "";
  complain("cannot {}: {}", what, missing.empty() ? answer.text : missing);
  return answer.unreachable ? kUnreachable : kFailed;
}

}  // namespace zorvctl
