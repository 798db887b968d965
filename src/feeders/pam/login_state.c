#include "login_state.h"

#include <stdlib.h>

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
