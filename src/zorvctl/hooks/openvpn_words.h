// What stands behind "hook openvpn": options of ours, the words that OpenVPN adds, and behind "--"
// the program that checks passwords.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace zorvctl {

struct HookWords {
  bool refuse_unchecked = false;                    // --on-daemon-away refuse
  int deadline_ms = 3000;                           // --deadline: for all questions of one script
  std::vector<std::string> others;                  // in front of "--"
  std::optional<std::vector<std::string>> checker;  // behind it
};

HookWords hook_words(std::span<const std::string> words);

}  // namespace zorvctl
