#include "follow.h"

#include "change_watch.h"
#include "daemon_answer.h"
#include "exit_status.h"
#include "follow_wait.h"

namespace zorvctl {

int read_on(const std::string& what, const std::function<std::optional<int>()>& read,
            const std::function<bool()>& is_due) {
  constexpr std::chrono::milliseconds kLook{100};
  FollowWait wait;
  ChangeWatch watch;
  bool is_first = true;
  bool is_away = false;
  do {
    if (!is_first && !watch.is_due() && !is_due()) {
      continue;
    }
    const auto begin = ChangeWatch::Clock::now();
    const std::optional<int> status = read();
    if (!status) {
      return kFailed;
    }
    if (is_first && *status != 0) {
      return report_status(*status, what);
    }
    if (*status != 0 && !is_away) {
      complain("cannot {} for now: {}", what, status_text(*status));
    }
    watch.asked(ChangeWatch::Clock::now() - begin, *status == 0);
    is_away = *status != 0;
    is_first = false;
  } while (wait.pause(kLook));
  return kDone;
}

}  // namespace zorvctl
