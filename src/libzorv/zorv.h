/* What a VPN server, its plugin or a PAM module tells the record daemon, and asks it.
 *
 *   struct zorv_server_record login = {sizeof login};
 *   login.vpn_type = ZORV_OPENVPN_SERVER;
 *   login.username = "alice";
 *   login.source_ip = "192.0.2.7";
 *   status = zorv_record_login(&login, NULL);
 *
 * Each call speaks to the daemon by itself and keeps nothing: any thread may call, at any time,
 * also after a fork. A call takes at most its deadline, whatever state the daemon is in. It returns
 * a status, 0 for done; outputs are untouched otherwise. Nothing is ever written to standard output
 * or standard error, no signal is raised or blocked, and errno means nothing afterwards.
 *
 * Structures grow: `size` comes first and is sizeof of the structure as the caller knows it.
 * Members behind it are 0; a larger structure than the library knows is taken by what it knows. So
 * fill one by an initialiser or memset, and set what you have.
 *
 * Texts are terminated, null for none, and copied before the call returns. A text is cut to 1024
 * bytes, between two characters of UTF-8, and each control character in it becomes '_'. A user has
 * one name in the records, counts and blocks this way, however long or strange it came.
 *
 * A record that the daemon does not take because it is away, stopping, overrun or mute is lost
 * unless the call asks for ZORV_SPOOL: it is then written to a file below /var/spool/zorv, which
 * takes one flush of a disk, and the daemon gets it at its next start, with the time that it has
 * now.
 *
 * A daemon that cannot be asked is no reason to refuse anybody: ZORV_UNKNOWN is not ZORV_BLOCKED.
 */
#ifndef ZORV_H
#define ZORV_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum zorv_status {
  ZORV_DONE = 0,
  ZORV_TIMED_OUT = 1, /* no answer within the deadline; it may have been done, or be done yet */
  ZORV_AWAY = 2,      /* the daemon does not run */
  ZORV_STOPPING = 3,  /* the daemon is about to end */
  ZORV_REFUSED = 4,   /* the daemon and this user do not deal with each other, or it failed */
  ZORV_BROKEN = 5,    /* the connection broke, or the answer cannot be understood */
  ZORV_BUSY = 6,      /* the daemon is overrun, or this process has no descriptor left */
  ZORV_INVALID = 7,   /* wrong arguments, or a daemon that does not know the call */
  ZORV_NO_POLICY = 8, /* the daemon answers but cannot tell whom its login policy blocks */
  ZORV_NO_MEMORY = 9,
  ZORV_SPOOLED = 10,     /* with ZORV_SPOOL: the record waits until the daemon is started again */
  ZORV_SPOOLED_FULL = 11 /* so it does, and the oldest that waited is lost in its place */
};

/* A few words on any status, for a log; never null. */
const char* zorv_status_text(int status);

/* The kinds of VPN. */
enum zorv_vpn_type {
  ZORV_PPTP_SERVER = 1,
  ZORV_L2TP_SERVER = 2,
  ZORV_OPENVPN_SERVER = 4,
  ZORV_FENLO_SERVER = 16,
  ZORV_WIREGUARD_SERVER = 32,
  ZORV_PPTP_CLIENT = 256,
  ZORV_L2TP_CLIENT = 512,
  ZORV_OPENVPN_CLIENT = 1024,
  ZORV_FENLO_CLIENT = 4096,
  ZORV_WIREGUARD_CLIENT = 65536
};

/* The server kind for an option's word ("pptp", "l2tp", "openvpn", "fenlo", "wireguard", in any
 * case), 0 for another word. The client kind of a server kind, and 0 for anything else. */
int zorv_server_type(const char* word);
int zorv_client_type(int server_type);

/* How a call is made; null for the defaults. */
struct zorv_call {
  size_t size;
  uint32_t deadline_ms; /* milliseconds for the whole call; 0 for ZORV_DEFAULT_DEADLINE_MS */
  uint32_t flags;       /* of enum zorv_call_flags */
};
#define ZORV_DEFAULT_DEADLINE_MS 5000

enum zorv_call_flags {
  ZORV_LOG_LINES = 1, /* lines about the call go to the service's log, /var/log/network/ZORV.log */
  /* A record that is not delivered waits in the spool, at most 10,000 of this process's effective
   * user; with a deadline of 1 the daemon is not asked before. Where it cannot be written there
   * either, the status is the daemon's, as without the flag. One that did not answer in time may
   * have taken the record: it then has it twice. Counted and forgotten failures do not wait: by
   * then they would speak of another moment. */
  ZORV_SPOOL = 2
};

/* --- Connections made to one of this machine's VPN servers --- */

struct zorv_server_record {
  size_t size;
  int32_t vpn_type;        /* a server kind */
  const char* username;    /* as the server authenticated it */
  const char* source_ip;   /* where the client calls from */
  const char* vpn_ip;      /* the client's address in the tunnel */
  const char* device_info; /* what is known of the client's machine and program */
  const char* outgoing;    /* the network interface that serves the client */
  uint64_t time;           /* seconds since the epoch; 0 for now */
  uint64_t uptime;         /* of a logout: seconds since the login */
  uint64_t tx_total;       /* of a logout: bytes sent to the client, and received from it */
  uint64_t rx_total;
  int64_t tx_rate;
  int64_t rx_rate;
};

int zorv_record_login(const struct zorv_server_record* record, const struct zorv_call* call);
int zorv_record_login_failure(const struct zorv_server_record* record,
                              const struct zorv_call* call);
int zorv_record_logout(const struct zorv_server_record* record, const struct zorv_call* call);

/* --- Connections this machine makes as a VPN client --- */

struct zorv_client_record {
  size_t size;
  int32_t vpn_type;         /* a client kind */
  const char* username;     /* that this machine logged in with */
  const char* vpn_ip;       /* this machine's address in the tunnel */
  const char* wan_ip;       /* the address it is seen with behind the tunnel, where known */
  const char* country_code; /* two letters, where known */
  uint64_t time;            /* as above, seen from this machine */
  uint64_t uptime;
  uint64_t tx_total;
  uint64_t rx_total;
  int64_t tx_rate;
  int64_t rx_rate;
};

int zorv_record_client_login(const struct zorv_client_record* record, const struct zorv_call* call);
int zorv_record_client_logout(const struct zorv_client_record* record,
                              const struct zorv_call* call);

/* --- Failed logins and blocks ---
 *
 * Before the password is looked at: zorv_check_block(), and refuse only ZORV_BLOCKED. After a wrong
 * one: zorv_count_failure(). After the right one: zorv_forget_failures(). A null or empty name is
 * ZORV_INVALID in all three.
 */

enum zorv_answer { ZORV_NOT_BLOCKED = 0, ZORV_BLOCKED = 1, ZORV_UNKNOWN = 2 };

#define ZORV_SECONDS_UNKNOWN ((uint64_t)-1)

struct zorv_block {
  size_t size;
  int32_t status;        /* ZORV_DONE, or why the answer is ZORV_UNKNOWN */
  uint64_t seconds_left; /* of ZORV_BLOCKED, or ZORV_SECONDS_UNKNOWN; 0 of the other answers */
};

/* An enum zorv_answer. `ret_block` may be null; one that has its size is filled whatever the answer
 * is.
 *
 * A block that has run out ends with this call. The seconds left take two more questions, within
 * the same deadline; they are unknown when one of them is not answered. */
int zorv_check_block(const char* username, struct zorv_block* ret_block,
                     const struct zorv_call* call);

/* One failed login more. The daemon tells when that blocks the user. */
int zorv_count_failure(const char* username, const struct zorv_call* call);

/* Ends a block, too. A user without failures is done. */
int zorv_forget_failures(const char* username, const struct zorv_call* call);

#ifdef __cplusplus
}
#endif

#endif
