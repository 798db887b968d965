#include "last_messages.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace zorvctl {
namespace {

constexpr size_t kBlock = 64 * 1024;

// What lies in the file from `begin` on, in front of `text`.
bool read_before(int file, off_t begin, size_t length, std::string* text) {
  std::string block(length, '\0');
  size_t read = 0;
  while (read < length) {
    const ssize_t got =
        pread(file, block.data() + read, length - read, begin + static_cast<off_t>(read));
    if (got <= 0) {
      errno = got == 0 ? EIO : errno;  // cut meanwhile
      return false;
    }
    read += static_cast<size_t>(got);
  }
  *text = block + *text;
  return true;
}

struct Found {
  size_t offset;  // in the text
  bool wanted;
  bool older;
};

std::vector<Found> messages_of(std::string_view text, const MessageFilter& filter) {
  std::vector<Found> found;
  size_t from = 0;
  while (const auto front = find_front(text, from)) {
    const auto offset = static_cast<size_t>(front->front.data() - text.data());
    found.push_back({offset, filter.wants(*front), filter.is_older(*front)});
    from = offset + front->front.size();
  }
  return found;
}

}  // namespace

bool MessageFilter::wants(const LogMessage& message) const {
  if (message.front.empty()) {
    return level == LogLevel::debug && since.empty() && until.empty();
  }
  const auto* known =
      std::find_if(std::begin(kLogLevels), std::end(kLogLevels),
                   [&](const LogLevelName& one) { return one.name == message.level; });
  return known != std::end(kLogLevels) && known->level >= level && !is_older(message) &&
         (until.empty() || message.time <= until);
}

off_t start_of_last(int file, off_t end, unsigned long long count, const MessageFilter& filter) {
  if (count == 0 && filter.since.empty()) {
    return 0;
  }
  off_t start = end;
  unsigned long long wanted = 0;
  std::string text;  // at first what stands in front of the messages that were looked at
  for (off_t begin = end; begin > 0;) {
    const auto length = static_cast<size_t>(
        std::min<off_t>(begin, static_cast<off_t>(std::max(kBlock, text.size()))));
    begin -= static_cast<off_t>(length);
    if (!read_before(file, begin, length, &text)) {
      return -1;
    }
    const std::vector<Found> found = messages_of(text, filter);
    for (auto message = found.rbegin(); message != found.rend(); ++message) {
      if (message->wanted) {
        start = begin + static_cast<off_t>(message->offset);
        if (++wanted == count) {
          return start;
        }
      }
    }
    const bool all_older =
        !found.empty() &&
        std::all_of(found.begin(), found.end(), [](const Found& one) { return one.older; });
    if (all_older) {
      return start;
    }
    text.resize(found.empty() ? text.size() : found.front().offset);
    if (text.size() > kLongestText) {
      text.clear();
    }
  }
  // What stands before the first message counts as one.
  return !text.empty() && filter.wants({{}, {}, {}, text}) ? 0 : start;
}

}  // namespace zorvctl
