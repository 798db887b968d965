// What an administrator asks of the server: how far the NASes are, and the dropping of old months.
#pragma once

#include <string>

namespace ship {

// Both give an exit status and print to stdout.
// With no name, of all NASes that the user of the connection may see.
int print_status(const std::string& to, const std::string& name);
int prune(const std::string& to, const std::string& keep);

// PostgreSQL's interval for "400d", or weeks, months, years: 'w', 'm', 'y'; "" for anything else.
std::string interval_of(const std::string& keep);

}  // namespace ship
