/* The time that one login may spend on the daemon: what one phase has waited, the later ones do not
 * have any more. A daemon that did not answer preauth is not waited for again by authfail. */
#ifndef PAM_TIME_H
#define PAM_TIME_H

#include <security/pam_modules.h>
#include <stdint.h>

/* The milliseconds that are left of `deadline_ms` for the login of this handle; 0 for none. */
uint32_t pam_zorv_time_left(pam_handle_t* pamh, uint32_t deadline_ms);

/* Milliseconds of a clock that only goes forward. */
uint64_t pam_zorv_now(void);

/* Takes the time since `start` from the login's. */
void pam_zorv_time_spent(pam_handle_t* pamh, uint64_t start);

/* The next phase on this handle is another login's. */
void pam_zorv_time_restart(pam_handle_t* pamh);

#endif
