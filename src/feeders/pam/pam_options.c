#include "pam_options.h"

#include <errno.h>
#include <security/pam_ext.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include "zorv.h"

enum { LONGEST_DEADLINE_S = 3600 };

static const char* value_behind(const char* word, const char* name) {
  const size_t length = strlen(name);
  return strncmp(word, name, length) == 0 ? word + length : NULL;
}

static int read_deadline(const char* text, uint32_t* ret_ms) {
  char* end = NULL;
  unsigned long seconds = 0;
  if (*text < '0' || *text > '9') {
    return -1;
  }
  errno = 0;
  seconds = strtoul(text, &end, 10);
  if (errno != 0 || *end != '\0' || seconds == 0 || seconds > LONGEST_DEADLINE_S) {
    return -1;
  }
  *ret_ms = (uint32_t)seconds * 1000;
  return 0;
}

static int read_word(const char* word, struct pam_zorv_options* options) {
  static const struct {
    const char* word;
    enum pam_zorv_phase phase;
  } phases[] = {
      {"preauth", PHASE_PREAUTH}, {"authfail", PHASE_AUTHFAIL}, {"authsucc", PHASE_AUTHSUCC}};
  const char* value = NULL;
  for (size_t i = 0; i < sizeof phases / sizeof phases[0]; ++i) {
    if (strcmp(word, phases[i].word) == 0) {
      options->phase = phases[i].phase;
      return 0;
    }
  }
  if (strcmp(word, "silent") == 0) {
    options->silent = 1;
    return 0;
  }
  if (strcmp(word, "debug") == 0) {
    options->debug = 1;
    return 0;
  }
  if ((value = value_behind(word, "deadline=")) != NULL) {
    return read_deadline(value, &options->deadline_ms);
  }
  if ((value = value_behind(word, "type=")) != NULL) {
    options->vpn_type = zorv_server_type(value);
    return options->vpn_type != 0 ? 0 : -1;
  }
  return -1;
}

int pam_zorv_options_read(const pam_handle_t* pamh, int count, const char** words,
                          struct pam_zorv_options* ret_options) {
  struct pam_zorv_options options = {PHASE_NONE, ZORV_DEFAULT_DEADLINE_MS, 0, 0, 0};
  for (int i = 0; i < count; ++i) {
    if (read_word(words[i], &options) != 0) {
      pam_syslog(pamh, LOG_ERR,
                 "'%s' is not understood; there are preauth, authfail, authsucc, silent, debug, "
                 "deadline=SECONDS (1 to %d) and type=pptp|l2tp|openvpn|fenlo|wireguard",
                 words[i], LONGEST_DEADLINE_S);
      return -1;
    }
  }
  *ret_options = options;
  return 0;
}
