/* zorv.so, a plugin of pppd: records the links of PPTP and L2TP and refuses users who are blocked.
 *
 *   plugin zorv.so            is enough, before or behind any other plugin
 *   zorv-type pptp|l2tp       where the tunnel's kind cannot be seen
 *   zorv-deadline SECONDS     how long a daemon that is mute may hold pppd up
 *
 * This file knows pppd and its ways; ppp_link.h is what they mean to the records. Everything runs
 * on pppd's only thread, out of its hooks and notifiers.
 */
/* Makes a `bool` of its own, so it comes before the language's. */
#include <pppd/pppd.h>

#include <pppd/chap-new.h>
#include <pppd/fsm.h>
#include <pppd/ipcp.h>
#include <pppd/lcp.h>

#include <arpa/inet.h>
#include <string.h>

#include "feeder_text.h"
#include "ppp_link.h"
#include "tunnel_end.h"
#include "zorv.h"

#define EXPORTED __attribute__((visibility("default")))
#define DEFAULT_DEADLINE_S 3
#define LONGEST_DEADLINE_S 60
#define PEER_IS_PROVEN (PAP_PEER | CHAP_PEER | EAP_PEER)

typedef int chap_verifier(char*, char*, int, struct chap_digest_type*, unsigned char*,
                          unsigned char*, char*, int);
typedef int pap_verifier(char*, char*, char**, struct wordlist**, struct wordlist**);

EXPORTED char pppd_version[] = VERSION;
EXPORTED void plugin_init(void);

static int deadline_s = DEFAULT_DEADLINE_S;
static int chosen_type;
static pid_t starter; /* of pppd; once it has left its terminal it has another parent */
static struct ppp_link our_link;
static chap_verifier* next_chap;
static pap_verifier* next_pap;

/* --- Options --- */

static int choose_type(char** words) {
  const int type = zorv_server_type(words[0]);
  if (type != ZORV_PPTP_SERVER && type != ZORV_L2TP_SERVER) {
    option_error("zorv-type is pptp or l2tp, not %q", words[0]);
    return 0;
  }
  chosen_type = type;
  return 1;
}

static option_t our_options[] = {
    {.name = "zorv-type",
     .type = o_special,
     .addr = (void*)choose_type,
     .description = "Kind of the tunnel in zorvd's records: pptp or l2tp",
     .flags = OPT_PRIV | OPT_NOPRINT},
    {.name = "zorv-deadline",
     .type = o_int,
     .addr = &deadline_s,
     .description = "Seconds that zorvd may hold a login or its end up",
     .flags = OPT_PRIV | OPT_LIMITS,
     .upper_limit = LONGEST_DEADLINE_S,
     .lower_limit = 1},
    {.name = NULL},
};

/* --- The login --- */

static void complain(const char* subject, const char* name, const char* trouble, const char* why) {
  warn("zorv: %s %q %s: %s", subject, name, trouble, why);
}

static bool is_blocked(const char* name, char* message, size_t size) {
  uint64_t seconds_left = ZORV_SECONDS_UNKNOWN;
  if (!ppp_link_is_blocked(&our_link, name, &seconds_left)) {
    return false;
  }
  notice("zorv: %q is refused: blocked after too many failed logins", name);
  block_text(BLOCK_TEXT_MINUTES, seconds_left, message, size);
  return true;
}

/* What pppd itself does where no plugin verifies. */
static int verify_by_secret(char* name, char* our_own_name, int id, struct chap_digest_type* digest,
                            unsigned char* challenge, unsigned char* response, char* message,
                            int message_space) {
  char secret[MAXSECRETLEN];
  int length = 0;
  if (!get_secret(0, name, our_own_name, secret, &length, 1)) {
    error("No CHAP secret found for authenticating %q", name);
    return 0;
  }
  const int is_right = digest->verify_response(id, name, (unsigned char*)secret, length, challenge,
                                               response, message, message_space);
  explicit_bzero(secret, sizeof secret);
  return is_right;
}

/* A failure in the form that Microsoft's clients read: no retry, and the challenge once more. */
static void write_refusal(char* message, size_t size, int digest_code,
                          const unsigned char* challenge, const char* text) {
  if (digest_code == CHAP_MD5) {
    snprintf(message, size, "%s", text);
    return;
  }
  char digits[2 * MAX_CHALLENGE_LEN + 1] = "";
  const size_t length = challenge[0] < MAX_CHALLENGE_LEN ? challenge[0] : MAX_CHALLENGE_LEN;
  for (size_t i = 0; i < length; ++i) {
    snprintf(digits + 2 * i, 3, "%02X", challenge[i + 1]);
  }
  snprintf(message, size, "E=691 R=0 C=%s V=0 M=%s", digits, text);
}

static int check_chap(char* name, char* our_own_name, int id, struct chap_digest_type* digest,
                      unsigned char* challenge, unsigned char* response, char* message,
                      int message_space) {
  char refusal[64];
  if (is_blocked(name, refusal, sizeof refusal)) {
    write_refusal(message, (size_t)message_space, digest->code, challenge, refusal);
    return 0;
  }
  chap_verifier* const verify = next_chap != NULL ? next_chap : verify_by_secret;
  const int is_right =
      verify(name, our_own_name, id, digest, challenge, response, message, message_space);
  /* pppd tells nobody of a rechallenge that was answered well. */
  if (is_right && (auth_done[0] & PEER_IS_PROVEN) != 0) {
    ppp_link_proven(&our_link, name);
  }
  return is_right;
}

static int check_pap(char* name, char* password, char** message, struct wordlist** addresses,
                     struct wordlist** options) {
  static char refusal[64];
  if (is_blocked(name, refusal, sizeof refusal)) {
    *message = refusal;
    return 0;
  }
  const int pppd_looks = -1;
  return next_pap != NULL ? next_pap(name, password, message, addresses, options) : pppd_looks;
}

static void on_authenticated(void* context, int unit) {
  (void)context;
  if ((auth_done[unit] & PEER_IS_PROVEN) != 0) {
    ppp_link_proven(&our_link, peer_authname);
  }
}

/* --- The link --- */

/* All plugins have been loaded by now, so ours is the first to be asked. */
static void chain_hooks(void) {
  static int is_chained;
  if (!is_chained) {
    is_chained = 1;
    next_chap = chap_verify_hook;
    chap_verify_hook = check_chap;
    next_pap = pap_auth_hook;
    pap_auth_hook = check_pap;
  }
}

/* pppd asks nobody about a name or a password that come by EAP. Where it may ask for another proof
 * it does, since a block would be no hindrance otherwise and guesses would not count. */
static void prefer_proofs_with_hooks(void) {
  lcp_options* const wanted = &lcp_wantoptions[0];
  if (!wanted->neg_eap) {
    return;
  }
  if (wanted->neg_chap || wanted->neg_upap) {
    wanted->neg_eap = 0;
  } else {
    warn("zorv: with EAP only, no block holds and no failed login is seen");
  }
}

/* The address that the kernel knows, or one that the server's program gave: of a client that was
 * put through by telephone that may be its number. */
static const char* find_caller(const struct tunnel_end* end) {
  if (end->address[0] != '\0') {
    return end->address;
  }
  if (!is_ip_address(remote_number) && ipparam != NULL && is_ip_address(ipparam)) {
    return ipparam;
  }
  return remote_number;
}

static void begin_link(void) {
  const struct tunnel_end end = find_tunnel_end(devfd, starter);
  const int seen_type = end.is_l2tp ? ZORV_L2TP_SERVER : ZORV_PPTP_SERVER;
  our_link.deadline_ms = (uint32_t)deadline_s * 1000;
  our_link.complain = complain;
  ppp_link_begin(&our_link, chosen_type != 0 ? chosen_type : seen_type, find_caller(&end));
}

static void on_phase(void* context, int new_one) {
  (void)context;
  if (new_one == PHASE_ESTABLISH) {
    chain_hooks();
    prefer_proofs_with_hooks();
    begin_link();
  } else if (new_one == PHASE_TERMINATE && status == EXIT_PEER_AUTH_FAILED) {
    /* The only sign of a wrong password that pppd itself found, and gone by the exit notifier. */
    ppp_link_failed(&our_link);
  }
}

static void on_ip_up(void* context, int unit) {
  static char address[INET_ADDRSTRLEN];
  (void)context;
  if (auth_done[unit] == 0) {
    return; /* nobody has shown who he is */
  }
  struct ppp_session session = {.dials_out = (auth_done[unit] & PEER_IS_PROVEN) == 0,
                                .user = user,
                                .address = address,
                                .interface = ifname};
  read_traffic(ifname, &session.at_start);
  const struct in_addr in_tunnel = {session.dials_out ? ipcp_gotoptions[unit].ouraddr
                                                      : ipcp_hisoptions[unit].hisaddr};
  inet_ntop(AF_INET, &in_tunnel, address, sizeof address);
  ppp_link_up(&our_link, &session);
}

static void on_ip_down(void* context, int unit) {
  (void)context;
  (void)unit;
  /* pppd's own count of the session, of 32 bits, is better than none. */
  struct ppp_traffic at_end = {link_stats.bytes_in, link_stats.bytes_out};
  read_traffic(ifname, &at_end);
  ppp_link_down(&our_link, link_connect_time, at_end);
}

/* A server's options and the common ones may both name the plugin. */
void plugin_init(void) {
  static int is_there;
  if (is_there) {
    return;
  }
  is_there = 1;
  starter = getppid();
  add_options(our_options);
  add_notifier(&phasechange, on_phase, NULL);
  add_notifier(&auth_up_notifier, on_authenticated, NULL);
  add_notifier(&ip_up_notifier, on_ip_up, NULL);
  add_notifier(&ip_down_notifier, on_ip_down, NULL);
}
