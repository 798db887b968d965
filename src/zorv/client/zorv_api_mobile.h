// The client side of the daemon's device UUID method; see zorv_api_db.h for what holds of every
// call.
#pragma once

#include "zorv_records.h"

// Fills **get with a fresh device UUID; the 36 bytes are copied as they come. Returns 0 whatever
// happened; a failed call leaves **get as it was.
int zorv_mobile_gen_zorv_uuid(zorv_mobile_gen_uuid_data_set* set,
                              zorv_mobile_gen_uuid_data_get** get);
