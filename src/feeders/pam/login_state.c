#include "login_state.h"

#include <stdlib.h>
#include <time.h>

static const char kName[] = "pam_zorv_login";

static void forget(pam_handle_t* pamh, void* data, int status) {
  (void)pamh;
  (void)status;
  free(data);
}

struct login_state* login_state(pam_handle_t* pamh) {
  const void* known = NULL;
  struct login_state* state = NULL;
  if (pam_get_data(pamh, kName, &known) == PAM_SUCCESS && known != NULL) {
    return (struct login_state*)known;
  }
  state = calloc(1, sizeof *state);
  if (state != NULL && pam_set_data(pamh, kName, state, forget) != PAM_SUCCESS) {
    free(state);
    return NULL;
  }
  return state;
}

uint32_t login_time_left(const struct login_state* state, uint32_t deadline_ms) {
  return state->spent_ms < deadline_ms ? deadline_ms - (uint32_t)state->spent_ms : 0;
}

uint64_t clock_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000 + (uint64_t)now.tv_nsec / 1000000;
}
