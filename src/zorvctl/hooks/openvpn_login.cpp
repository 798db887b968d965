#include "openvpn_login.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <fstream>

#include "block_time.h"
#include "daemon_answer.h"
#include "display_text.h"
#include "exit_status.h"
#include "login_checker.h"
#include "record_text.h"
#include "undelivered.h"
#include "zorv_calls.h"

namespace zorvctl {
namespace {

using zorv_api::CallDeadline;

// OpenVPN serves nobody while its script waits: whatever one login asks of the daemon shares one
// deadline, during which the checker's time does not count.
class DaemonTime {
 public:
  explicit DaemonTime(int milliseconds) : left_(static_cast<uint32_t>(milliseconds)) {}

  template <class Ask>
  int spend(Ask ask) {
    const CallDeadline deadline(left_);
    const int status = ask(deadline);
    left_ = static_cast<uint32_t>(deadline.milliseconds_left());
    return status;
  }

 private:
  uint32_t left_;  // milliseconds
};

bool is_via_env(const Environment& environment) {
  return environment.count("password") != 0;
}

// A word that is not understood could be a checker, and every password would go unchecked. Without
// a checker OpenVPN adds one word, the file that it names with "via-file".
bool is_understood(const HookWords& words, const Environment& environment) {
  const size_t added = words.checker || is_via_env(environment) ? 0 : 1;
  for (const std::string& word : words.others) {
    if (words.others.size() > added || word.starts_with('-')) {
      complain("hook: '{}' is not understood: the password checker stands behind --",
               display_text(word));
      return false;
    }
  }
  if (words.checker && words.checker->empty()) {
    complain("hook: no password checker stands behind --");
    return false;
  }
  return true;
}

// With "via-file" the user's name may stand only in the file's first line.
void take_name_from_file(const HookWords& words, Environment* environment) {
  const auto& last_of = words.checker ? *words.checker : words.others;
  if (last_of.empty() || is_via_env(*environment) || !login_name(*environment).empty()) {
    return;
  }
  std::ifstream file(last_of.back(), std::ios::binary);
  std::string name(zorv::bytes_looked_at(kTextSize - 1), '\0');
  file.read(name.data(), static_cast<std::streamsize>(name.size()));
  name.resize(static_cast<size_t>(file.gcount()));
  name.resize(std::min(name.find_first_of(std::string_view("\r\n\0", 3)), name.size()));
  (*environment)["username"] = name;
}

// What the client is told beside AUTH_FAILED.
void tell_client(const Environment& environment, const std::string& reason) {
  const std::string path(value_of(environment, "auth_failed_reason_file"));
  if (!path.empty()) {
    std::ofstream(path) << reason;
  }
}

class Login {
 public:
  Login(const Environment& environment, const HookWords& words)
      : environment_(environment),
        words_(words),
        user_(login_name(environment)),
        is_new_(!is_renegotiation(environment)),
        time_(words.deadline_ms) {}

  int verify();

 private:
  bool is_kept_out();
  void tell_blocked();
  void count_failure();
  void forget_failures();
  void record_failure();

  const Environment& environment_;
  const HookWords& words_;
  const std::string user_;
  const bool is_new_;
  DaemonTime time_;
  int answered_ = 0;  // how the daemon's answer came: one that gave none is not asked again
};

void Login::tell_blocked() {
  constexpr uint64_t kMinute = 60;
  uint64_t seconds = 0;
  const int status = time_.spend([&](const CallDeadline& deadline) {
    return zorv_api::ask_seconds_left(user_, deadline, seconds) ? 0 : 1;
  });
  const uint64_t minutes = seconds / kMinute + (seconds % kMinute != 0 ? 1 : 0);
  tell_client(environment_, status != 0 ? "blocked, try again later"
                                        : fmt::format("blocked, try again in {} minute{}", minutes,
                                                      minutes == 1 ? "" : "s"));
}

// Because of the block, or because nobody can say whether there is one.
bool Login::is_kept_out() {
  // One that the daemon cannot judge by its policy is not blocked.
  auto answer = zorv_api::BlockAnswer::unknown;
  answered_ = time_.spend([&](const CallDeadline& deadline) {
    return zorv_api::check_block(user_, answer, zorv_api::new_buffer(),
                                 deadline.milliseconds_left());
  });
  if (answer == zorv_api::BlockAnswer::blocked) {
    complain("hook: {} is refused: blocked after too many failed logins", display_text(user_));
    tell_blocked();
    record_failure();
    return true;
  }
  const char* const why = answered_ != 0 ? status_text(answered_) : "the login policy is unknown";
  if (answer == zorv_api::BlockAnswer::unknown && words_.refuse_unchecked) {
    complain("hook: {} is refused: nobody can say whether the user is blocked: {}",
             display_text(user_), why);
    tell_client(environment_, "logins cannot be checked now, try again later");
    return true;
  }
  if (answered_ != 0) {
    complain("hook: {} may be blocked, the login goes on unchecked and uncounted: {}",
             display_text(user_), why);
  }
  return false;
}

void Login::count_failure() {
  const int status = time_.spend([&](const CallDeadline& deadline) {
    return zorv_api::count_failure(user_, zorv_api::new_buffer(), deadline.milliseconds_left());
  });
  if (status != 0) {
    complain("hook: a failed login of {} is not counted: {}", display_text(user_),
             status_text(status));
  }
}

void Login::forget_failures() {
  const int status = time_.spend([&](const CallDeadline& deadline) {
    return zorv_api::forget_failures(user_, zorv_api::new_buffer(), deadline.milliseconds_left());
  });
  if (status != 0) {
    complain("hook: the failed logins of {} are not forgotten: {}", display_text(user_),
             status_text(status));
  }
}

void Login::record_failure() {
  const db_conn_server_log record = failed_login_record(environment_, std::time(nullptr));
  const int status = answered_ != 0 ? answered_ : time_.spend([&](const CallDeadline& deadline) {
    return zorv_api::insert(zorv::kServerLog, &record, zorv_api::new_buffer(),
                            deadline.milliseconds_left());
  });
  keep_undelivered(status, zorv::kServerLog, &record, "the failed login", user_);
}

int Login::verify() {
  if (is_new_ && is_kept_out()) {
    return kRefuse;
  }
  if (!words_.checker || is_verified_token(environment_)) {
    return kGoOn;
  }
  switch (run_checker(*words_.checker)) {
    case Verdict::accepted:
      if (is_new_ && answered_ == 0) {
        forget_failures();
      }
      return kGoOn;
    case Verdict::deferred:
      return kWait;
    case Verdict::broken:
      complain("hook: {} is refused: the password could not be checked", display_text(user_));
      return kRefuse;
    case Verdict::refused:
      break;
  }
  if (!is_expired_token(environment_)) {
    if (answered_ == 0) {
      count_failure();
    }
    record_failure();
  }
  return kRefuse;
}

}  // namespace

int verify_login(Environment environment, const HookWords& words) {
  if (!is_understood(words, environment)) {
    complain("hook: everyone is refused until the server's configuration is mended");
    return kRefuse;
  }
  take_name_from_file(words, &environment);
  return Login(environment, words).verify();
}

}  // namespace zorvctl
