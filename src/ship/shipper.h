// Ships both logs: page after page until nothing is new, and with `follow` for ever.
#pragma once

#include <string>

namespace ship {

struct ShipOptions {
  std::string to;
  std::string name;
  bool follow = false;
  bool take_over = false;
  unsigned interval = 10;  // seconds from one look to the next
  unsigned page = 10000;   // rows: of the largest record 52 MB while there is a backlog
};

// An exit status.
int ship_logs(const ShipOptions& options);

// What this machine is known by, as a digest; "" where it has no id.
std::string machine_origin();

}  // namespace ship
