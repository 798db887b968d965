#include "change_watch.h"

#include <algorithm>

#include "logger.h"
#include "rooted.h"

namespace zorvctl {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kEarliest{100};
constexpr milliseconds kWithoutLog{500};
constexpr milliseconds kWithLog{5000};
constexpr milliseconds kLongestPause{500};
constexpr int kPausePerCost = 4;

constexpr std::string_view kQuery = "sqlite3_exec SELECT";
constexpr std::string_view kChanges[] = {"sqlite3_exec INSERT", "sqlite3_exec UPDATE",
                                         "sqlite3_exec DELETE"};

bool holds(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

ChangeWatch::ChangeWatch() : log_(os::rooted(kDefaultLogFile)) {
  if (log_.open() == 0) {
    log_.seek(log_.size());
  }
}

void ChangeWatch::asked(Clock::duration cost, bool answered) {
  const auto pause = std::min<Clock::duration>(cost * kPausePerCost, kLongestPause);
  const auto now = Clock::now();
  earliest_ = now + std::max<Clock::duration>(kEarliest, pause);
  latest_ =
      now + std::max<Clock::duration>(answered && was_served_ ? kWithLog : kWithoutLog, pause);
  changed_ = false;
  was_served_ = false;
}

bool ChangeWatch::is_due() {
  const auto now = Clock::now();
  if (now < earliest_) {
    return false;
  }
  read_log();
  return changed_ || now >= latest_;
}

void ChangeWatch::read_log() {
  std::string text = log_end_;
  while (log_.read(&text) != 0) {
    was_served_ = was_served_ || holds(text, kQuery);
    changed_ = changed_ || std::any_of(std::begin(kChanges), std::end(kChanges),
                                       [&](std::string_view one) { return holds(text, one); });
    text.erase(0, text.size() - std::min(text.size(), kQuery.size() - 1));
  }
  log_end_ = text;
  changed_ = log_.was_cut() || changed_;
}

}  // namespace zorvctl
