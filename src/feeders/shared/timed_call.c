#include "timed_call.h"

#include <time.h>

static uint64_t clock_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000 + (uint64_t)now.tv_nsec / 1000000;
}

bool begin_call(struct timed_call* ret_call, uint32_t deadline_ms, uint64_t spent_ms) {
  struct timed_call call = {.form = {.size = sizeof call.form}};
  if (spent_ms >= deadline_ms) {
    return false;
  }
  call.form.deadline_ms = deadline_ms - (uint32_t)spent_ms;
  call.begin_ms = clock_ms();
  *ret_call = call;
  return true;
}

void begin_record(struct timed_call* ret_call, uint32_t deadline_ms, uint64_t spent_ms) {
  begin_call(ret_call, spent_ms < deadline_ms ? deadline_ms - (uint32_t)spent_ms : 1, 0);
  ret_call->form.flags = ZORV_SPOOL;
}

bool is_undelivered(int status) {
  switch (status) {
    case ZORV_TIMED_OUT:
    case ZORV_AWAY:
    case ZORV_STOPPING:
    case ZORV_BROKEN:
    case ZORV_BUSY:
    case ZORV_SPOOLED:
    case ZORV_SPOOLED_FULL:
      return true;
    default:
      return false;
  }
}

int end_call(const struct timed_call* call, uint64_t* spent_ms, int status) {
  *spent_ms += clock_ms() - call->begin_ms;
  return status;
}
