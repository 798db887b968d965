// "log": the service's log, one message a line.
#include <CLI/CLI.hpp>

#include <cstring>
#include <memory>

#include "color.h"
#include "commands.h"
#include "decimal_option.h"
#include "display_text.h"
#include "exit_status.h"
#include "file_tail.h"
#include "follow_wait.h"
#include "last_messages.h"
#include "list_options.h"
#include "output_options.h"
#include "pager.h"
#include "rooted.h"
#include "window_options.h"
#include "word_option.h"

namespace zorvctl {
namespace {

constexpr unsigned long long kLinesBeforeFollowing = 10;
constexpr std::chrono::milliseconds kLook{200};

struct LogOptions {
  bool follow = false;
  std::optional<unsigned long long> limit;
  LogLevel level = LogLevel::debug;
  WindowOptions window;
  std::optional<std::string> file;
  ColorMode color = ColorMode::automatic;
  bool no_pager = false;
};

std::string_view color_of(std::string_view level) {
  return level == "ERROR" ? kRed : level == "WARN" ? kYellow : level == "DEBUG" ? kGrey : "";
}

std::string line_of(const LogMessage& message, bool is_colored) {
  std::string front(message.front);
  if (const auto color = color_of(message.level); is_colored && !color.empty()) {
    front.replace(static_cast<size_t>(message.level.data() - message.front.data()),
                  message.level.size(), colored(message.level, color));
  }
  return front + display_text(message.text) + "\n";
}

int read_filter(const LogOptions& options, MessageFilter* ret) {
  ret->level = options.level;
  Window window;
  const int status = read_window(options.window, Zone::local, &window);
  // Texts of times are in the times' order.
  ret->since = window.since ? time_text(*window.since, Zone::local) : "";
  ret->until = window.until ? time_text(*window.until, Zone::local) : "";
  return status;
}

off_t first_offset(const FileTail& log, const LogOptions& options, const MessageFilter& filter) {
  const unsigned long long usual = options.window.since ? 0
                                   : options.follow     ? kLinesBeforeFollowing
                                                        : kDefaultLimit;
  if (options.follow && options.limit == 0ULL) {
    return log.size();
  }
  return start_of_last(log.descriptor(), log.size(), options.limit.value_or(usual), filter);
}

int complain_unread(const std::string& path, int error) {
  complain("cannot read the log {}: {}", display_text(path),
           error == EINVAL ? "it is not a file" : std::strerror(error));
  return kFailed;
}

int show_log(const LogOptions& options) {
  MessageFilter filter;
  if (const int status = read_filter(options, &filter); status != kDone) {
    return status;
  }
  const std::string path = options.file ? *options.file : os::rooted(kDefaultLogFile);
  FileTail log(path);
  if (const int error = log.open(); error != 0) {
    return complain_unread(path, error);
  }
  const off_t start = first_offset(log, options, filter);
  if (start < 0) {
    return complain_unread(path, errno);
  }
  log.seek(start);
  const bool in_color = is_colored(options.color);
  const Pager pager(!options.follow && wants_pager(options.no_pager));
  bool printed = true;
  MessageSplitter splitter([&](const LogMessage& message) {
    printed = printed && (!filter.wants(message) || print(line_of(message, in_color)));
  });
  std::optional<FollowWait> wait;
  if (options.follow) {
    wait.emplace();
  }
  do {
    std::string block;
    while (printed && !output_unwanted && log.read(&block) != 0) {
      splitter.add(block);
      block.clear();
    }
    splitter.end();
    if (!flush_output() || !printed) {
      return kFailed;
    }
  } while (wait && wait->pause(kLook));
  return kDone;
}

// Any beginning of a level's name, or a longer word for it: "warning".
std::optional<LogLevel> level_of(std::string_view word) {
  for (const LogLevelName& known : kLogLevels) {
    const std::string name = CLI::detail::to_lower(std::string(known.name));
    if (!word.empty() && (name.starts_with(word) || word.starts_with(name))) {
      return known.level;
    }
  }
  return std::nullopt;
}

}  // namespace

void add_log_noun(CLI::App& program, Run* run) {
  auto options = std::make_shared<LogOptions>();
  CLI::App* noun =
      program.add_subcommand("log", "Show the service's log, one message a line, the newest last");
  noun->add_flag("-f,--follow", options->follow, "Go on with new messages as they come");
  noun->add_option(
          "-n,--limit", options->limit,
          fmt::format("At most the last N messages ({}, with -f {}, with -S all, if not given; 0 "
                      "for all, with -f for none)",
                      kDefaultLimit, kLinesBeforeFollowing))
      ->transform(decimal())
      ->type_name("N");
  constexpr const char* kLevelWords = "debug, info, warn, error";
  noun->add_option("-p,--priority", one_of(options->level, level_of, "--priority", kLevelWords),
                   fmt::format("Only messages of this level and above: {}", kLevelWords))
      ->type_name("LEVEL");
  add_window_options(*noun, &options->window);
  noun->add_option("--file", given(options->file),
                   fmt::format("Another file than {}", kDefaultLogFile))
      ->type_name("FILE");
  add_color_option(*noun, &options->color, "Levels");
  add_pager_option(*noun, &options->no_pager);
  noun->footer(
      "Control characters are shown as \\n, \\x1b. With -f the log is followed through rotation,\n"
      "until Ctrl-C, which ends with 0.\n\n"
      "Examples:\n"
      "  zorvctl log -f\n"
      "  zorvctl log -p warn -S today\n"
      "  zorvctl log -n 0 --file ZORV.log.1");
  noun->callback([options, run] { *run = [options] { return show_log(*options); }; });
}

}  // namespace zorvctl
