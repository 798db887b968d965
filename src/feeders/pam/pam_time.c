#include "pam_time.h"

#include <stdlib.h>
#include <time.h>

static const char kSpent[] = "pam_zorv_spent";

static void forget(pam_handle_t* pamh, void* data, int status) {
  (void)pamh;
  (void)status;
  free(data);
}

static uint64_t spent(const pam_handle_t* pamh) {
  const void* data = NULL;
  return pam_get_data(pamh, kSpent, &data) == PAM_SUCCESS && data != NULL ? *(const uint64_t*)data
                                                                          : 0;
}

/* Without memory for it the time stays what it was. */
static void set_spent(pam_handle_t* pamh, uint64_t milliseconds) {
  uint64_t* data = malloc(sizeof *data);
  if (data == NULL) {
    return;
  }
  *data = milliseconds;
  if (pam_set_data(pamh, kSpent, data, forget) != PAM_SUCCESS) {
    free(data);
  }
}

uint64_t pam_zorv_now(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000 + (uint64_t)now.tv_nsec / 1000000;
}

uint32_t pam_zorv_time_left(pam_handle_t* pamh, uint32_t deadline_ms) {
  const uint64_t gone = spent(pamh);
  return gone < deadline_ms ? deadline_ms - (uint32_t)gone : 0;
}

void pam_zorv_time_spent(pam_handle_t* pamh, uint64_t start) {
  set_spent(pamh, spent(pamh) + (pam_zorv_now() - start));
}

void pam_zorv_time_restart(pam_handle_t* pamh) {
  set_spent(pamh, 0);
}
