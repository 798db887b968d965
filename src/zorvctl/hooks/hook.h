// Hooks: what a VPN server's configuration names as its script, "zorvctl hook NAME WORD ...".
//
// A hook's words are the server's and those that it hands on, no options of ours: the parser of the
// command line never sees them.
//
// A hook more: a file here that defines it, its row in hook.cpp, and a section of the man page.
#pragma once

#include <CLI/App.hpp>

#include <span>
#include <string>
#include <vector>

namespace zorvctl {

// Servers read the exit status of "hook": one that is told wrong words must not take it for leave
// to go on.
inline constexpr const char* kHookNoun = "hook";

struct Hook {
  const char* name;
  const char* description;
  const char* help;
  const char* server_variable;  // in the environment of scripts that the server runs
  // What the server takes the exit status for stands in `help`.
  int (*run)(const std::vector<std::string>& words);
};

// The hook that the words "hook NAME" in front of all others name, or null: also where a person
// asks for its help.
const Hook* named_hook(std::span<char* const> arguments);
int run_hook(const Hook& hook, std::span<char* const> arguments);

// For --help.
void add_hook_noun(CLI::App& program);

}  // namespace zorvctl
