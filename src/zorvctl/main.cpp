// The command line of the record daemon: zorvctl NOUN VERB.

#include <CLI/CLI.hpp>

#include <exception>

#include "commands.h"
#include "display_text.h"
#include "exit_status.h"

namespace zorvctl {
namespace {

constexpr const char* kFooter =
    "Every noun and verb has a --help of its own.\n\n"
    "Examples:\n"
    "  zorvctl server-log list              the latest connections\n"
    "  zorvctl server-log list username=alice -S yesterday -j\n"
    "  zorvctl block list                   who is blocked, and for how long\n"
    "  zorvctl block remove alice\n\n"
    "Exit status: 0 done, 1 failed, 2 wrong words, 3 the daemon does not answer, 4 blocked (only\n"
    "block check).";

void add_nouns(CLI::App& program, Run* run) {
  program.require_subcommand(1);
  program.set_version_flag("--version", "zorvctl " ZORV_VERSION, "Print the version");
  program.footer(kFooter);
  add_record_nouns(program, run);
  add_block_noun(program, run);
  add_uuid_noun(program, run);
  add_option_noun(program, run);
  add_gateway_noun(program, run);
  add_hook_noun(program, run);
}

// "zorvctl server-log", as far as the words were understood.
const CLI::App& chosen(const CLI::App& program, std::string* ret_words) {
  const CLI::App* app = &program;
  *ret_words = app->get_name();
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
    *ret_words += " " + app->get_name();
  }
  return *app;
}

int wrong_words(const CLI::App& program, const CLI::ParseError& error) {
  std::string words;
  const CLI::App& app = chosen(program, &words);
  const auto verbs = app.get_subcommands([](const CLI::App*) { return true; });
  const auto unknown = program.remaining(true);
  if (!verbs.empty() && app.get_name() != "option") {
    std::string names;
    for (const CLI::App* verb : verbs) {
      names += (names.empty() ? "" : ", ") + verb->get_name();
    }
    complain(
        "{}: {} of {}", words,
        unknown.empty() ? "say one" : fmt::format("'{}' is none", display_text(unknown.front())),
        names);
  } else {
    complain("{}", display_text(error.what()));
  }
  fmt::print(stderr, "Try '{} --help'.\n", words);
  return kUsage;
}

int run(int argc, char** argv) {
  CLI::App program("The command line of zorvd, the record daemon of the VPN service", "zorvctl");
  Run chosen_run;
  add_nouns(program, &chosen_run);
  try {
    program.parse(argc, argv);
  } catch (const CLI::Success& wanted) {  // --help, --version
    return program.exit(wanted);
  } catch (const CLI::ParseError& error) {
    return wrong_words(program, error);
  }
  return chosen_run();
}

}  // namespace
}  // namespace zorvctl

int main(int argc, char** argv) {
  try {
    const int status = zorvctl::run(argc, argv);
    return std::fflush(stdout) == 0 ? status : zorvctl::kFailed;
  } catch (const std::exception& error) {
    zorvctl::complain("{}", error.what());
    return zorvctl::kFailed;
  }
}
