// The command line of the record daemon: zorvctl NOUN VERB.

#include <CLI/CLI.hpp>

#include <cstring>
#include <exception>
#include <sstream>

#include "commands.h"
#include "display_text.h"
#include "exit_status.h"
#include "hook.h"

namespace zorvctl {
namespace {

constexpr const char* kFooter =
    "Every noun and verb has a --help of its own.\n\n"
    "Examples:\n"
    "  zorvctl server-log list              the latest connections\n"
    "  zorvctl server-log list user=alice -S yesterday -j\n"
    "  zorvctl sessions --open              who is connected now\n"
    "  zorvctl server-log list -f           the same as it happens\n"
    "  zorvctl stats -S 30d                 how much, by whom\n"
    "  zorvctl report -S 30d >report.html   the same and more as a page for a browser\n"
    "  zorvctl block list                   who is blocked, and for how long\n"
    "  zorvctl block why alice              the failed logins that led there\n"
    "  zorvctl block remove alice\n\n"
    "Exit status: 0 done, 1 failed, 2 wrong words, 3 the daemon does not answer, 4 blocked,\n"
    "5 to 9 unknown whether blocked (from 4 on only block check).";

void add_nouns(CLI::App& program, Run* run) {
  program.require_subcommand(1);
  program.set_version_flag("--version", "zorvctl " ZORV_VERSION, "Print the version");
  add_table_nouns(program, run);
  add_sessions_noun(program, run);
  add_stats_noun(program, run);
  add_report_noun(program, run);
  add_spool_noun(program, run);
  add_uuid_noun(program, run);
  add_option_noun(program, run);
  add_gateway_noun(program, run);
  add_log_noun(program, run);
  add_hook_noun(program);
  program.footer(kFooter);  // last: what is added later inherits it
}

// The noun or verb that was reached, with its words in front: "server-log list".
const CLI::App& reached(const CLI::App& program, std::string* ret_words) {
  const CLI::App* app = &program;
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
    *ret_words += (ret_words->empty() ? "" : " ") + app->get_name();
  }
  return *app;
}

// Why the words cannot be meant, naming the one that is wrong.
std::string reason(const CLI::App& program, const CLI::App& app, const CLI::ParseError& error) {
  auto unknown = program.remaining(true);
  std::erase(unknown, "--");
  const auto choices = app.get_subcommands([](const CLI::App*) { return true; });
  if (choices.empty()) {
    return unknown.empty() ? error.what() : fmt::format("'{}' is not expected", unknown.front());
  }
  std::string names;
  for (const CLI::App* choice : choices) {
    names += (names.empty() ? "" : ", ") + choice->get_name();
  }
  return unknown.empty() ? "say one of " + names
                         : fmt::format("'{}' is none of {}", unknown.front(), names);
}

int wrong_words(const CLI::App& program, const CLI::ParseError& error) {
  std::string words;
  const CLI::App& app = reached(program, &words);
  complain("{}{}{}", words, words.empty() ? "" : ": ", display_text(reason(program, app, error)));
  const std::string hint =
      fmt::format("Try 'zorvctl {}{}--help'.\n", words, words.empty() ? "" : " ");
  std::fwrite(hint.data(), 1, hint.size(), stderr);
  return words.starts_with(kHookNoun) ? kFailed : kUsage;
}

int run(std::span<char* const> arguments) {
  if (const Hook* hook = named_hook(arguments)) {
    return run_hook(*hook, arguments);
  }
  CLI::App program("The command line of zorvd, the record daemon of the VPN service", "zorvctl");
  Run chosen_run;
  add_nouns(program, &chosen_run);
  try {
    program.parse(static_cast<int>(arguments.size()), arguments.data());
  } catch (const CLI::Success& wanted) {  // --help, --version
    std::ostringstream text;
    const int status = program.exit(wanted, text, text);
    print(text.str());
    return status;
  } catch (const CLI::ParseError& error) {
    return wrong_words(program, error);
  }
  return chosen_run();
}

// Output that got lost is a failure of any verb that did not fail by itself.
int end_output(int status) {
  if (flush_output() && std::ferror(stdout) == 0) {
    return status;
  }
  complain("cannot write the output{}{}", output_error != 0 ? ": " : "",
           output_error != 0 ? std::strerror(output_error) : "");
  return status == kDone ? kFailed : status;
}

}  // namespace
}  // namespace zorvctl

int main(int argc, char** argv) {
  try {
    return zorvctl::end_output(zorvctl::run({argv, static_cast<size_t>(argc)}));
  } catch (const std::exception& error) {
    zorvctl::complain("{}", error.what());
    return zorvctl::kFailed;
  }
}
