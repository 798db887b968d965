// What every fuzz target shares: a root that is safe to write into, and notifications that start no
// process.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// Ends the process unless ZORV_ROOT names a folder, and sends the log, fully formatted, nowhere.
// Called once, before anything else.
void prepare();

// Ends the process, naming what does not hold.
void require(bool holds, const char* what);

// The parts of an input that are separated by `separator`, at least one.
std::vector<std::string> split(std::string_view input, char separator);

}  // namespace fuzz
