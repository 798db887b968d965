// The table privilege_user_block: failed logins counted per user, and who is blocked for them.
//
// The policy (on or off, how many failures, for how many minutes) is not kept here: every operation
// that needs it asks for it afresh. A user is blocked from the failure that reaches the limit until
// a check finds the block time over; each failure counts on and restarts the clock. One row a user,
// names compared byte by byte; a name longer than 1024 bytes never meets its own row again, since
// rows come back cut to that length.
//
// A null user name is the empty one.
#pragma once

#include "zorv_records.h"
#include "zorvd_db_row_space.h"

namespace store {

int create_privilege_user_block_db();
// Counts one failed login; notifies on the failure that reaches the limit, and on no later one.
// Always 0.
int insert_privilege_user_block(const char* username);
// 1 = blocked, 0 = not blocked, -1 = the policy could not be read. While the policy is off every
// row is dropped; a block that has run out is lifted here.
int check_privilege_user_block(const char* username);
// Lifts a block; notifies only when the count is exactly the limit. Always 0.
int delete_privilege_user_block(const char* username);
// Lifts every block, notifying for those whose count is exactly the limit. Always 0.
int clean_privilege_user_block();
// Fills the caller's zeroed **out; its `data` is released with free. -1, with no data, for a bad
// order_by or when the rows do not fit into memory.
int select_privilege_user_block(const db_query_cond* cond, db_privilege_user_block_query** out);
// The same with the records in `space` and their numbers in ret_head.
int select_privilege_user_block(const db_query_cond* cond, RowSpace& space,
                                db_privilege_user_block_query& ret_head);
int optimize_privilege_user_block_db();
int finish_privilege_user_block_db();

}  // namespace store
