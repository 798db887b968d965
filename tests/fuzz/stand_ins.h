// What every fuzz target shares: a root that is safe to write into, calls of other services that
// are answered with bytes of the input, and notifications that start no process.
//
// The two stand-ins are definitions of functions that the product's libraries hold, too: a target
// that links this file gets these, because an archive is only searched for what is missing.
#pragma once

#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// What kx_call() answers next, in order; when there is none, nobody listens.
inline std::deque<std::string> replies;

// How often the notification tool would have been started.
inline unsigned long long spawned = 0;

// Ends the process unless ZORV_ROOT names a folder, and sends the log, fully formatted, nowhere.
// Called once, before anything else.
void prepare();

// Ends the process, naming what does not hold.
void require(bool holds, const char* what);

// The parts of an input that are separated by `separator`, at least one.
std::vector<std::string> split(std::string_view input, char separator);

}  // namespace fuzz
