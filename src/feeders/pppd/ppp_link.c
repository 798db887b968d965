#include "ppp_link.h"

#include <string.h>

#include "timed_call.h"
#include "zorv.h"

static void put_text(char (*to)[PPP_NAME_SIZE], const char* from) {
  const size_t length = strnlen(from, sizeof *to - 1);
  memmove(*to, from, length);
  (*to)[length] = '\0';
}

/* --- Calls of the daemon, within what is left of the stage's deadline --- */

/* False: the stage's time is over. */
static bool begin(const struct ppp_link* link, struct timed_call* ret_call) {
  return begin_call(ret_call, link->deadline_ms, link->spent_ms);
}

static int tell_name(struct ppp_link* link, const char* name,
                     int (*function)(const char*, const struct zorv_call*)) {
  struct timed_call call;
  return begin(link, &call) ? end_call(&call, &link->spent_ms, function(name, &call.form))
                            : ZORV_TIMED_OUT;
}

static int record_server(struct ppp_link* link, const struct zorv_server_record* record,
                         int (*function)(const struct zorv_server_record*,
                                         const struct zorv_call*)) {
  struct timed_call call;
  begin_record(&call, link->deadline_ms, link->spent_ms);
  return end_call(&call, &link->spent_ms, function(record, &call.form));
}

static int record_client(struct ppp_link* link, const struct zorv_client_record* record,
                         int (*function)(const struct zorv_client_record*,
                                         const struct zorv_call*)) {
  struct timed_call call;
  begin_record(&call, link->deadline_ms, link->spent_ms);
  return end_call(&call, &link->spent_ms, function(record, &call.form));
}

static void judge(const struct ppp_link* link, int status, const char* subject, const char* user,
                  const char* trouble) {
  if (status != ZORV_DONE) {
    link->complain(subject, user, trouble, zorv_status_text(status));
  }
}

static void judge_record(const struct ppp_link* link, int status, const char* subject,
                         const char* user) {
  const bool waits = status == ZORV_SPOOLED || status == ZORV_SPOOLED_FULL;
  judge(link, status, subject, user, waits ? "is not recorded yet" : "is not recorded");
}

/* --- The login --- */

void ppp_link_begin(struct ppp_link* link, int server_type, const char* caller) {
  link->server_type = server_type;
  put_text(&link->caller, caller);
  link->spent_ms = 0;
  link->login = PPP_LOGIN_NONE;
  link->is_proven = false;
  link->is_up = false;
}

bool ppp_link_is_blocked(struct ppp_link* link, const char* name, uint64_t* ret_seconds_left) {
  put_text(&link->name, name);
  link->login = PPP_LOGIN_OPEN;
  if (link->is_proven && strcmp(link->name, link->user) == 0) {
    return false;
  }
  struct zorv_block block = {.size = sizeof block, .status = ZORV_TIMED_OUT};
  struct timed_call call;
  int answer = ZORV_UNKNOWN;
  if (begin(link, &call)) {
    answer = end_call(&call, &link->spent_ms, zorv_check_block(name, &block, &call.form));
  }
  if (answer == ZORV_UNKNOWN) {
    judge(link, block.status, "the login of", name, "goes on without asking whether it is blocked");
  }
  link->is_unblocked = answer == ZORV_NOT_BLOCKED;
  if (answer != ZORV_BLOCKED) {
    return false;
  }
  link->login = PPP_LOGIN_BLOCKED;
  *ret_seconds_left = block.seconds_left;
  return true;
}

void ppp_link_proven(struct ppp_link* link, const char* user) {
  const bool gave_name = link->login == PPP_LOGIN_OPEN;
  link->login = PPP_LOGIN_NONE;
  if (link->is_proven) {
    return;
  }
  link->is_proven = true;
  put_text(&link->user, gave_name ? link->name : user);
  /* Where the daemon was not there to be asked, failures stay for its next login. */
  if (gave_name && link->is_unblocked) {
    judge(link, tell_name(link, link->user, zorv_forget_failures), "the failures of", link->user,
          "are not forgotten");
  }
}

void ppp_link_failed(struct ppp_link* link) {
  const enum ppp_login login = link->login;
  link->login = PPP_LOGIN_NONE;
  if (login == PPP_LOGIN_NONE) {
    return;
  }
  if (login == PPP_LOGIN_OPEN) {
    judge(link, tell_name(link, link->name, zorv_count_failure), "the failed login of", link->name,
          "is not counted");
  }
  const struct zorv_server_record record = {.size = sizeof record,
                                            .vpn_type = link->server_type,
                                            .username = link->name,
                                            .source_ip = link->caller};
  judge_record(link, record_server(link, &record, zorv_record_login_failure), "the failed login of",
               link->name);
}

/* --- The session --- */

static int record_session(struct ppp_link* link, bool is_over, uint64_t uptime_s,
                          struct ppp_traffic moved) {
  const struct ppp_session* session = &link->session;
  if (session->dials_out) {
    const struct zorv_client_record record = {.size = sizeof record,
                                              .vpn_type = zorv_client_type(link->server_type),
                                              .username = session->user,
                                              .vpn_ip = session->address,
                                              .uptime = uptime_s,
                                              .tx_total = moved.tx,
                                              .rx_total = moved.rx};
    return record_client(link, &record,
                         is_over ? zorv_record_client_logout : zorv_record_client_login);
  }
  const struct zorv_server_record record = {.size = sizeof record,
                                            .vpn_type = link->server_type,
                                            .username = link->user,
                                            .source_ip = link->caller,
                                            .vpn_ip = session->address,
                                            .outgoing = session->interface,
                                            .uptime = uptime_s,
                                            .tx_total = moved.tx,
                                            .rx_total = moved.rx};
  return record_server(link, &record, is_over ? zorv_record_logout : zorv_record_login);
}

static const char* session_user(const struct ppp_link* link) {
  return link->session.dials_out ? link->session.user : link->user;
}

void ppp_link_up(struct ppp_link* link, const struct ppp_session* session) {
  const struct ppp_traffic nothing = {0, 0};
  link->session = *session;
  link->is_up = true;
  judge_record(link, record_session(link, false, 0, nothing), "the login of", session_user(link));
  link->spent_ms = 0; /* what comes now is the end */
}

/* An interface that is gone or was made anew has moved what it shows. */
static uint64_t since(uint64_t start, uint64_t end) {
  return end >= start ? end - start : end;
}

void ppp_link_down(struct ppp_link* link, uint64_t uptime_s, struct ppp_traffic at_end) {
  if (!link->is_up) {
    return;
  }
  link->is_up = false;
  const struct ppp_traffic moved = {since(link->session.at_start.rx, at_end.rx),
                                    since(link->session.at_start.tx, at_end.tx)};
  judge_record(link, record_session(link, true, uptime_s, moved), "the logout of",
               session_user(link));
}
