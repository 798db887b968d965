/* Calls of the daemon that share one deadline: what one has waited, the later ones do not have any
 * more, so a daemon that is mute holds nobody up longer than that. */
#ifndef ZORV_TIMED_CALL_H
#define ZORV_TIMED_CALL_H

#include <stdbool.h>
#include <stdint.h>

#include "zorv.h"

struct timed_call {
  struct zorv_call form; /* for the function that is called */
  uint64_t begin_ms;
};

/* A call that takes what is left of `deadline_ms` after `spent_ms`. False: nothing is left. */
bool begin_call(struct timed_call* ret_call, uint32_t deadline_ms, uint64_t spent_ms);

/* A call for a record, which waits in the spool where the daemon does not take it: with nothing
 * left the daemon is not asked, and it waits all the same. */
void begin_record(struct timed_call* ret_call, uint32_t deadline_ms, uint64_t spent_ms);

/* Whether a record waits now, or would, if it could be kept. */
bool is_undelivered(int status);

/* Adds the time since begin_call() to what is spent; `status` is what the function gave, and is
 * handed on. */
int end_call(const struct timed_call* call, uint64_t* spent_ms, int status);

#endif
