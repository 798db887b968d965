#include "hook.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <string_view>

namespace zorvctl {

extern const Hook kOpenVpnHook;

namespace {

constexpr const Hook* kHooks[] = {&kOpenVpnHook};

constexpr size_t kWordsInFront = 3;  // zorvctl hook NAME

bool asks_for_help(const Hook& hook, std::span<char* const> words) {
  return words.size() == 1 && std::getenv(hook.server_variable) == nullptr &&
         (std::string_view(words[0]) == "--help" || std::string_view(words[0]) == "-h");
}

}  // namespace

const Hook* named_hook(std::span<char* const> arguments) {
  if (arguments.size() < kWordsInFront || std::string_view(arguments[1]) != kHookNoun) {
    return nullptr;
  }
  for (const Hook* hook : kHooks) {
    if (std::string_view(arguments[2]) == hook->name) {
      return asks_for_help(*hook, arguments.subspan(kWordsInFront)) ? nullptr : hook;
    }
  }
  return nullptr;
}

int run_hook(const Hook& hook, std::span<char* const> arguments) {
  const auto words = arguments.subspan(kWordsInFront);
  return hook.run({words.begin(), words.end()});
}

void add_hook_noun(CLI::App& program) {
  CLI::App* noun = program.add_subcommand(kHookNoun, "What VPN servers run to record connections");
  noun->require_subcommand(1);
  for (const Hook* hook : kHooks) {
    noun->add_subcommand(hook->name, hook->description)->footer(hook->help);
  }
}

}  // namespace zorvctl
