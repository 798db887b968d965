#include "openvpn_words.h"

#include <algorithm>

#include "whole_number.h"

namespace zorvctl {
namespace {

bool take_option(const std::string& name, const std::string& value, HookWords* ret_words) {
  if (name == "--on-daemon-away" && (value == "accept" || value == "refuse")) {
    ret_words->refuse_unchecked = value == "refuse";
    return true;
  }
  constexpr int kLongest = 60;
  int seconds = 0;
  if (name == "--deadline" && whole_number(value, &seconds) && seconds >= 1 &&
      seconds <= kLongest) {
    ret_words->deadline_ms = seconds * 1000;
    return true;
  }
  return false;
}

}  // namespace

HookWords hook_words(std::span<const std::string> words) {
  HookWords result;
  const auto mark = std::find(words.begin(), words.end(), "--");
  auto word = words.begin();
  while (mark - word >= 2 && take_option(word[0], word[1], &result)) {
    word += 2;
  }
  result.others.assign(word, mark);
  if (mark != words.end()) {
    result.checker.emplace(mark + 1, words.end());
  }
  return result;
}

}  // namespace zorvctl
