// What is said of a login policy that cannot be had, or of a wrong member in one that can.
#pragma once

#include "login_policy.h"

namespace zorvctl {

// Asks the policy service, and complains of what is not as it should be.
zorv::PolicyReading read_policy_or_complain();

// Names the members that are of a wrong kind, if there are any.
void complain_odd(const zorv::PolicyReading& reading);

}  // namespace zorvctl
