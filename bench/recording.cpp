#include "recording.h"

#include <unistd.h>

#include <regex>

#include "harness/daemon.h"
#include "harness/test_root.h"

namespace bench {

Recording record(const std::function<void()>& call) {
  harness::write_file(harness::kLogFile, "");
  call();
  const std::string text = harness::read_file(harness::kLogFile);
  static const std::regex prefix(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d (\d+) \[[A-Z]+\] \w+ \[\d+\] )");
  static const std::string statement_text = ":sqlite3_exec ";
  const std::string self = std::to_string(getpid());
  Recording recording;
  for (std::sregex_iterator match(text.begin(), text.end(), prefix), end; match != end;) {
    const auto from = static_cast<size_t>(match->position());
    const bool own = (*match)[1] == self;
    ++match;
    const size_t to = match != end ? static_cast<size_t>(match->position()) : text.size();
    const std::string line = text.substr(from, to - from);
    (own ? recording.own_lines : recording.daemon_lines).push_back(line);
    if (const size_t at = line.find(statement_text); at != std::string::npos) {
      recording.statements.push_back(line.substr(at + statement_text.size()));
    }
  }
  return recording;
}

}  // namespace bench
