// A server log filled beforehand, and the records and conditions that the measures use on it.
#pragma once

#include <string>

#include "zorv_records.h"

namespace bench {

// Replaces the daemon's database by one whose server log holds `rows` rows of 50 users, a second
// apart; the daemon must not run. Its tables are those that the daemon makes.
void fill_server_log(int rows);
// The same for the table of failed logins, of as many users.
void fill_blocks(int rows);
// Copies the daemon's database; the path of the copy, below the root.
std::string copy_database();

db_conn_server_log sample_record();
// A page: `order_by` 0 is the id, 4 the time; newest first.
db_query_cond page_of(record_int64 count, record_int64 order_by, const char* user);

}  // namespace bench
