#include "kx_callers.h"

#include <unistd.h>

// The platform's bus does not tell whom else it serves.
std::set<unsigned> kxbus::allowed_callers(std::string_view /*service*/) {
  return {0, geteuid()};
}
