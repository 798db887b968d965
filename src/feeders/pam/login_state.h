/* What the phases of one login know of each other. It lives in the PAM handle and begins anew with
 * each preauth.
 *
 * They share one deadline: what one phase has waited for the daemon, the later ones do not have any
 * more, and a daemon that did not answer preauth is not waited for again by authfail. And whom
 * preauth has refused stays refused where the stack goes on: that is what "required" does.
 */
#ifndef LOGIN_STATE_H
#define LOGIN_STATE_H

#include <security/pam_modules.h>
#include <stdint.h>

struct login_state {
  uint64_t spent_ms; /* waiting for the daemon */
  int refused;
};

/* Null without memory for it. */
struct login_state* login_state(pam_handle_t* pamh);

#endif
