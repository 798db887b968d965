// Stands in for pppd, in whatever program includes this once: its variables, hooks and notifiers. A
// test sets the variables and says what happens on the link; pppd's part of it is done here.
#pragma once

#include <arpa/inet.h>
#include <dlfcn.h>

#include <cstdarg>
#include <cstring>
#include <map>
#include <regex>
#include <string>
#include <vector>

// pppd's headers are C, with a bool of their own.
#define bool pppd_bool
#define class pppd_class
extern "C" {
#include <pppd/pppd.h>

#include <pppd/chap-new.h>
#include <pppd/fsm.h>
#include <pppd/ipcp.h>
#include <pppd/lcp.h>
}
#undef bool
#undef class
// Behind them: it defines what pppd.h includes.
#include <linux/if_pppox.h>

namespace standin {

std::vector<std::string> told;  // the server's log
option_t* options;
std::string answer;                                // to the caller whose name was given last
std::map<std::string, std::string> machine_files;  // by their paths
std::string kernel_l2tp;  // pppd's device is the kernel's L2TP socket to this address
std::multimap<notifier**, notify_func> notifiers;

}  // namespace standin

extern "C" {
notifier *phasechange, *auth_up_notifier, *ip_up_notifier, *ip_down_notifier;
int (*chap_verify_hook)(char*, char*, int, chap_digest_type*, unsigned char*, unsigned char*, char*,
                        int);
int (*pap_auth_hook)(char*, char*, char**, wordlist**, wordlist**);
int devfd, auth_done[NUM_PPP];
volatile int status;
char peer_authname[MAXNAMELEN + 1], user[MAXNAMELEN], remote_number[MAXNAMELEN], *ipparam;
char ifname[MAXIFNAMELEN];
unsigned link_connect_time;
pppd_stats link_stats;
lcp_options lcp_wantoptions[NUM_PPP];
ipcp_options ipcp_gotoptions[NUM_PPP], ipcp_hisoptions[NUM_PPP];

void add_options(option_t* table) {
  standin::options = table;
}
void add_notifier(notifier** chain, notify_func function, void*) {
  standin::notifiers.insert({chain, function});
}
// One of pppd's formats is its own: %q, which quotes.
void warn(char* text, ...) {
  const std::string format = std::regex_replace(text, std::regex("%q"), "\"%s\"");
  char line[256];
  va_list values;
  va_start(values, text);
  vsnprintf(line, sizeof line, format.c_str(), values);
  va_end(values);
  standin::told.emplace_back(line);
}
void notice(char*, ...) __attribute__((alias("warn")));
void error(char*, ...) __attribute__((alias("warn")));
void option_error(char*, ...) __attribute__((alias("warn")));
// Everybody's but one's.
int get_secret(int, char* name, char*, char* secret, int* length, int) {
  strcpy(secret, "right");
  *length = 5;
  return strcmp(name, "nobody") != 0;
}

// The machine's side of it.
int getpeername(int, sockaddr* name, socklen_t* size) {
  auto* const end = reinterpret_cast<sockaddr_pppol2tp*>(name);
  end->sa_family = AF_PPPOX;
  end->sa_protocol = PX_PROTO_OL2TP;
  *size = sizeof *end;
  return inet_pton(AF_INET, standin::kernel_l2tp.c_str(), &end->pppol2tp.addr.sin_addr) - 1;
}
FILE* fopen(const char* path, const char* mode) {
  static const auto real = reinterpret_cast<decltype(&fopen)>(dlsym(RTLD_NEXT, "fopen"));
  const auto file = standin::machine_files.find(path);
  return file == standin::machine_files.end()
             ? real(path, mode)
             : fmemopen(file->second.data(), file->second.size(), mode);
}
}

namespace standin {

void tell(notifier** chain, int value = 0) {
  const auto [first, end] = notifiers.equal_range(chain);
  for (auto call = first; call != end; ++call) {
    call->second(nullptr, value);
  }
}

// A link begins, with the variables as they are.
void begin() {
  auth_done[0] = 0;
  status = EXIT_OK;
  tell(&phasechange, PHASE_ESTABLISH);
}

// Closing the link and the signal of the server's program that answers it are a phase each.
void give_up(int why = EXIT_PEER_AUTH_FAILED) {
  status = why;
  tell(&phasechange, PHASE_TERMINATE);
  tell(&phasechange, PHASE_TERMINATE);
}

void let_in(const std::string& name, int proof) {
  strcpy(peer_authname, name.c_str());
  auth_done[0] |= proof;
  tell(&auth_up_notifier);
}

enum Method { kPap = 0, kMd5 = CHAP_MD5, kMschap2 = CHAP_MICROSOFT_V2 };

// The caller gives a name and a password: true if that lets in, which is told as pppd tells it. A
// right password does, unless the link ends.
bool give_name(Method method, std::string name, std::string password = "right", int end = EXIT_OK) {
  char message[256] = "";
  char* text = message;
  chap_digest_type digest{};
  digest.code = method;
  digest.verify_response = [](int, char*, unsigned char* secret, int length, unsigned char*,
                              auto* response, char*,
                              int) { return int{memcmp(response, secret, length) == 0}; };
  unsigned char challenge[] = {3, 0x0a, 0xff, 0x00};
  auto* const response = reinterpret_cast<unsigned char*>(password.data());
  const int verdict = method == kPap
                          ? pap_auth_hook(name.data(), password.data(), &text, nullptr, nullptr)
                          : chap_verify_hook(name.data(), user, 1, &digest, challenge, response,
                                             message, sizeof message);
  answer = text;
  const bool is_right = verdict < 0 ? password == "right" : verdict != 0;
  if (!is_right || end != EXIT_OK) {
    give_up(is_right ? end : EXIT_PEER_AUTH_FAILED);
    return false;
  }
  const int proof = method == kPap ? PAP_PEER : CHAP_PEER;
  if ((auth_done[0] & proof) == 0) {
    let_in(name + " as pppd writes it", proof);
  }
  return true;
}

void up() {
  strcpy(ifname, "ppp0");
  inet_pton(AF_INET, "10.0.0.1", &ipcp_gotoptions[0].ouraddr);
  inet_pton(AF_INET, "10.0.0.2", &ipcp_hisoptions[0].hisaddr);
  tell(&ip_up_notifier);
}

// With pppd's own counters.
void down(unsigned seconds, unsigned rx, unsigned tx) {
  link_connect_time = seconds;
  link_stats.bytes_in = rx;
  link_stats.bytes_out = tx;
  tell(&ip_down_notifier);
}

}  // namespace standin
