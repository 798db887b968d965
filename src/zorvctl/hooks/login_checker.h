// The program that really checks a user's password, run on behalf of an OpenVPN server.
#pragma once

#include <string>
#include <vector>

namespace zorvctl {

enum class Verdict {
  accepted,
  refused,
  deferred,  // the program goes on in the background and tells OpenVPN through a file
  broken,    // it could not be run, or was killed: nothing is known of the password
};

// Runs command[0], searched in PATH, with our environment and streams, and waits for its end.
Verdict run_checker(const std::vector<std::string>& command);

}  // namespace zorvctl
