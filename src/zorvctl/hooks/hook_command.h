// "hook NAME": what a VPN server's configuration names as its script.
#pragma once

#include <CLI/App.hpp>

#include <functional>
#include <span>

namespace zorvctl {

// OpenVPN reads the exit status of "hook": wrong words must not end as its checker's "deferred".
inline constexpr const char* kHookNoun = "hook";

// The words behind "hook openvpn" are a checker's and OpenVPN's, no options of ours: these are cut
// off *arguments, which the parser gets, and returned.
std::span<char*> take_hook_words(std::span<char*>* arguments);
void add_hook_noun(CLI::App& program, std::span<char*> words, std::function<int()>* run);

}  // namespace zorvctl
