/* The words behind pam_zorv.so in a PAM configuration. */
#ifndef PAM_OPTIONS_H
#define PAM_OPTIONS_H

#include <security/pam_modules.h>
#include <stdint.h>

enum pam_zorv_phase {
  PHASE_NONE,
  PHASE_PREAUTH,  /* before the password is looked at */
  PHASE_AUTHFAIL, /* it was wrong */
  PHASE_AUTHSUCC  /* it was right */
};

struct pam_zorv_options {
  enum pam_zorv_phase phase;
  uint32_t deadline_ms; /* of one login, over all phases */
  int vpn_type;         /* a server kind; 0: failures are counted and not recorded */
  int silent;           /* nothing is said to the user */
  int debug;            /* every step is told to syslog */
};

/* 0, or -1 when a word is not understood, which is told to syslog. */
int pam_zorv_options_read(const pam_handle_t* pamh, int count, const char** words,
                          struct pam_zorv_options* ret_options);

#endif
