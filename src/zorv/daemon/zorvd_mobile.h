// Device UUIDs for mobile clients: their making, and the handler of the method that asks for one.
#pragma once

#include "kxbus.h"

// Writes 32 hexadecimal digits and "%Z?" to `out`, which holds at least 36 zeroed bytes; the 36th
// is left alone. 0, or -1 with `out` untouched when the kernel gives no UUID.
int zorv_uuid_gen(char* out);

// Answers with 36 bytes whatever the request holds; all zero when no UUID could be made.
int zorv_mobile_gen_zorv_uuid(kx_io* io);
