#include "policy_complaint.h"

#include "display_text.h"
#include "exit_status.h"

namespace zorvctl {

void complain_odd(const zorv::PolicyReading& reading) {
  if (reading.state == zorv::PolicyReading::State::read && !reading.remark.empty()) {
    complain("the login policy {}: {}", zorv::kLoginPolicyFile, display_text(reading.remark));
  }
}

zorv::PolicyReading read_policy_or_complain() {
  zorv::PolicyReading reading = zorv::ask_login_policy();
  if (reading.state != zorv::PolicyReading::State::read) {
    complain("cannot read the login policy {}: who is blocked is unknown: {}",
             zorv::kLoginPolicyFile, display_text(reading.remark));
  }
  complain_odd(reading);
  return reading;
}

}  // namespace zorvctl
