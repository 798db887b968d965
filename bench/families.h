// The families of measures, one source each. Every one starts what it needs in the root of the
// process, and leaves nothing running.
#pragma once

#include "measure.h"

namespace bench {

void measure_bus(Report& report);
void measure_bus_reply(Report& report);
void measure_insert(Report& report);
void measure_page(Report& report);
void measure_all_rows(Report& report);
void measure_block_check(Report& report);
void measure_log(Report& report);
void measure_notification(Report& report);
void measure_json(Report& report);
void measure_process(Report& report);
void measure_growth(Report& report);

}  // namespace bench
