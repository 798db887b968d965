/* One link of pppd as the records know it: who calls, how the login ends, what the session moved.
 *
 * pppd's part tells what happens, these functions tell the daemon, through libzorv. A link has two
 * stages, its login and its end. The calls of a stage take one deadline together at most, so a
 * daemon that is mute holds pppd up once; what it did not take is complained of, and records wait
 * in the spool. Only a daemon that answers "blocked" refuses anybody.
 *
 * One link at a time, on one thread. Texts are copied, cut where they are too long.
 */
#ifndef ZORV_PPP_LINK_H
#define ZORV_PPP_LINK_H

#include <stdbool.h>
#include <stdint.h>

#define PPP_NAME_SIZE 257 /* pppd's longest name, terminator included */

/* Bytes that an interface has received and sent. */
struct ppp_traffic {
  uint64_t rx;
  uint64_t tx;
};

/* A tunnel that has an address. Its texts are pppd's and last as long as it is up. */
struct ppp_session {
  bool dials_out;      /* this machine is the client */
  const char* user;    /* that this machine logged in with; else whoever ppp_link_proven() told */
  const char* address; /* the client's, in the tunnel */
  const char* interface;
  struct ppp_traffic at_start; /* of the interface */
};

/* Says in the server's log what was not done and why: "the login of", USER, "is not recorded". The
 * user's name is as the caller gave it. */
typedef void ppp_complain(const char* subject, const char* user, const char* trouble,
                          const char* why);

enum ppp_login {
  PPP_LOGIN_NONE,    /* nobody has given a name since the last verdict */
  PPP_LOGIN_OPEN,    /* pppd looks at the password */
  PPP_LOGIN_BLOCKED, /* refused before that */
};

struct ppp_link {
  uint32_t deadline_ms;
  ppp_complain* complain;

  int server_type; /* of enum zorv_vpn_type, also where this machine is the client */
  char caller[PPP_NAME_SIZE];
  uint64_t spent_ms; /* of the stage's deadline */

  enum ppp_login login;
  char name[PPP_NAME_SIZE]; /* given last */
  bool is_unblocked;        /* the daemon said so of `name` */
  bool is_proven;
  char user[PPP_NAME_SIZE]; /* who has proven to be it */

  bool is_up;
  struct ppp_session session;
};

/* A link begins. `caller` is an address, or a number, or "". */
void ppp_link_begin(struct ppp_link* link, int server_type, const char* caller);

/* A name has come with its password. True: refuse it; *ret_seconds_left is filled as zorv.h says of
 * a block. The user whose session is up is not asked about: nobody is thrown out by a block. */
bool ppp_link_is_blocked(struct ppp_link* link, const char* name, uint64_t* ret_seconds_left);

/* The password was right; `user` is whom pppd takes the caller for, should no name have come here.
 * A session keeps its user, whoever proves to be what later. */
void ppp_link_proven(struct ppp_link* link, const char* user);

/* pppd has given the caller up, who may not have given a name. */
void ppp_link_failed(struct ppp_link* link);

void ppp_link_up(struct ppp_link* link, const struct ppp_session* session);

/* Nothing if it is not up. `uptime_s` is the session's, `at_end` of its interface. */
void ppp_link_down(struct ppp_link* link, uint64_t uptime_s, struct ppp_traffic at_end);

#endif
