/* A PAM module that has the record daemon count failed logins and refuses whom it has blocked.
 *
 *   auth  requisite                    pam_zorv.so preauth type=openvpn
 *   auth  [success=1 default=bad]      pam_unix.so
 *   auth  [default=die]                pam_zorv.so authfail type=openvpn
 *   auth  sufficient                   pam_zorv.so authsucc
 *
 * preauth refuses the blocked and is PAM_IGNORE otherwise, so that it alone lets nobody in.
 * authfail counts, records, and is always PAM_AUTH_ERR. authsucc forgets and is PAM_SUCCESS. As an
 * account module it forgets and is PAM_IGNORE. A login that preauth has refused is not counted
 * besides, and no later phase forgets for it: even with the right password it is PAM_AUTH_ERR.
 *
 * A daemon that cannot be asked changes none of these answers. All phases of one login together
 * wait for one deadline at most.
 */
#include <security/pam_ext.h>
#include <security/pam_modules.h>
#include <string.h>
#include <syslog.h>

#include "feeder_text.h"
#include "login_state.h"
#include "pam_options.h"
#include "timed_call.h"
#include "zorv.h"

#define EXPORTED __attribute__((visibility("default")))

struct login {
  pam_handle_t* pamh;
  struct pam_zorv_options options;
  struct login_state* state;
  const char* user;
  const char* host; /* null where the service does not tell */
  char shown_user[256];
  char shown_host[128];
};

static int read_login(pam_handle_t* pamh, int count, const char** words, struct login* ret_login) {
  struct login login = {.pamh = pamh};
  const void* host = NULL;
  int status = PAM_SUCCESS;
  if (pam_zorv_options_read(pamh, count, words, &login.options) != 0) {
    return PAM_SYSTEM_ERR;
  }
  status = pam_get_user(pamh, &login.user, NULL);
  if (status != PAM_SUCCESS) {
    return status;
  }
  login.state = login_state(pamh);
  if (login.state == NULL) {
    return PAM_BUF_ERR;
  }
  if (pam_get_item(pamh, PAM_RHOST, &host) == PAM_SUCCESS) {
    login.host = host;
  }
  shown_text(login.user, login.shown_user, sizeof login.shown_user);
  shown_text(login.host, login.shown_host, sizeof login.shown_host);
  *ret_login = login;
  return PAM_SUCCESS;
}

/* False: the login's time is over. */
static bool begin(const struct login* login, struct timed_call* ret_call) {
  return begin_call(ret_call, login->options.deadline_ms, login->state->spent_ms);
}

/* Syslog gets what went wrong, or everything. */
static void tell(const struct login* login, const char* what, int status) {
  if (status != ZORV_DONE) {
    pam_syslog(login->pamh, LOG_WARNING, "%s of '%s' from '%s': %s", what, login->shown_user,
               login->shown_host, zorv_status_text(status));
  } else if (login->options.debug) {
    pam_syslog(login->pamh, LOG_DEBUG, "%s of '%s' from '%s'", what, login->shown_user,
               login->shown_host);
  }
}

static void record_failure(const struct login* login) {
  struct zorv_server_record record = {.size = sizeof record};
  struct timed_call call;
  if (login->options.vpn_type == 0) {
    return;
  }
  record.vpn_type = login->options.vpn_type;
  record.username = login->user;
  record.source_ip = login->host;
  begin_record(&call, login->options.deadline_ms, login->state->spent_ms);
  tell(login, "recording the failed login",
       end_call(&call, &login->state->spent_ms, zorv_record_login_failure(&record, &call.form)));
}

static int refuse_blocked(const struct login* login) {
  static const struct login_state kNew = {0, 0};
  struct zorv_block block = {.size = sizeof block, .status = ZORV_TIMED_OUT};
  struct timed_call call;
  char text[80];
  int answer = ZORV_UNKNOWN;
  *login->state = kNew;
  if (begin(login, &call)) {
    answer =
        end_call(&call, &login->state->spent_ms, zorv_check_block(login->user, &block, &call.form));
  }
  tell(login, "asking for a block", block.status);
  if (answer != ZORV_BLOCKED) {
    return PAM_IGNORE;
  }
  login->state->refused = 1;
  block_text(BLOCK_TEXT_SENTENCE, block.seconds_left, text, sizeof text);
  pam_syslog(login->pamh, LOG_NOTICE, "'%s' from '%s' is refused: %s", login->shown_user,
             login->shown_host, text);
  if (!login->options.silent) {
    pam_error(login->pamh, "%s", text);
  }
  record_failure(login);
  return PAM_AUTH_ERR;
}

static void count_failure(const struct login* login) {
  struct timed_call call;
  int status = ZORV_TIMED_OUT;
  if (begin(login, &call)) {
    status = end_call(&call, &login->state->spent_ms, zorv_count_failure(login->user, &call.form));
  }
  tell(login, "counting the failed login", status);
  if (status == ZORV_DONE || is_undelivered(status)) {
    record_failure(login);
  }
  /* Without preauth in the stack the next try of this handle begins here. */
  login->state->spent_ms = 0;
}

static void forget_failures(const struct login* login) {
  struct timed_call call;
  int status = ZORV_TIMED_OUT;
  if (begin(login, &call)) {
    status =
        end_call(&call, &login->state->spent_ms, zorv_forget_failures(login->user, &call.form));
  }
  tell(login, "forgetting the failed logins", status);
}

EXPORTED int pam_sm_authenticate(pam_handle_t* pamh, int flags, int argc, const char** argv) {
  struct login login;
  const int status = read_login(pamh, argc, argv, &login);
  if (status != PAM_SUCCESS) {
    return status;
  }
  if (((unsigned)flags & PAM_SILENT) != 0) {
    login.options.silent = 1;
  }
  switch (login.options.phase) {
    case PHASE_PREAUTH:
      return refuse_blocked(&login);
    case PHASE_AUTHFAIL:
      if (!login.state->refused) {
        count_failure(&login);
      }
      return PAM_AUTH_ERR;
    case PHASE_AUTHSUCC:
      if (login.state->refused) {
        return PAM_AUTH_ERR;
      }
      forget_failures(&login);
      return PAM_SUCCESS;
    case PHASE_NONE:
      break;
  }
  pam_syslog(pamh, LOG_ERR, "one of preauth, authfail and authsucc is missing");
  return PAM_SYSTEM_ERR;
}

EXPORTED int pam_sm_setcred(pam_handle_t* pamh, int flags, int argc, const char** argv) {
  (void)pamh;
  (void)flags;
  (void)argc;
  (void)argv;
  return PAM_SUCCESS;
}

EXPORTED int pam_sm_acct_mgmt(pam_handle_t* pamh, int flags, int argc, const char** argv) {
  struct login login;
  const int status = read_login(pamh, argc, argv, &login);
  (void)flags;
  if (status != PAM_SUCCESS) {
    return status;
  }
  if (login.state->refused) {
    return PAM_AUTH_ERR;
  }
  forget_failures(&login);
  return PAM_IGNORE;
}
