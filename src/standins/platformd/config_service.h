// The service "vpncaas": what stands in the configuration files.
//
//   read_json {"path": "/etc/config/..."}   the file's JSON document
//
// Only regular files below /etc/config are read, each under its read lock. A path that leads out
// of it, through ".." or a link, is refused.
#pragma once

#include "kxbus.h"

namespace platformd {

void config_service_call(const char* method, kx_io* io, int fd);

}  // namespace platformd
