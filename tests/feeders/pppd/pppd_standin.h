// Stands in for pppd, in whatever program includes this once: its variables, hooks and notifiers,
// with zorv.so loaded. A test sets the variables and says what happens on the link; what pppd would
// do then is done here.
#pragma once

#include <arpa/inet.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "harness/test_root.h"

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

std::vector<std::string> log_lines;
option_t* options;
std::string answer;       // to the caller whose name was given last
std::string starter;      // the program that started pppd
std::string kernel_l2tp;  // pppd's device is the kernel's L2TP socket to this address
std::vector<std::pair<notifier**, std::pair<notify_func, void*>>> notifiers;

void tell(notifier** chain, int value) {
  for (const auto& [its_chain, call] : notifiers) {
    if (its_chain == chain) {
      call.first(call.second, value);
    }
  }
}

// Of pppd's formats the plugin uses %s and %q, which quotes.
void write_line(std::string format, va_list values) {
  for (size_t at = 0; (at = format.find("%q", at)) != std::string::npos;) {
    format.replace(at, 2, "\"%s\"");
  }
  char line[2000];
  vsnprintf(line, sizeof line, format.c_str(), values);  // NOLINT: made of the plugin's own texts
  log_lines.emplace_back(line);
}

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
void add_notifier(notifier** chain, notify_func function, void* context) {
  standin::notifiers.push_back({chain, {function, context}});
}
void warn(char* format, ...) {
  va_list values;
  va_start(values, format);
  standin::write_line(format, values);
  va_end(values);
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

// The machine's side of it: sockets of L2TP, and its files below the test's root.
int getpeername(int, sockaddr* name, socklen_t* size) {
  sockaddr_pppol2tp end{};
  end.sa_family = AF_PPPOX;
  end.sa_protocol = PX_PROTO_OL2TP;
  inet_pton(AF_INET, standin::kernel_l2tp.c_str(), &end.pppol2tp.addr.sin_addr);
  memcpy(name, &end, sizeof end);
  *size = sizeof end;
  return standin::kernel_l2tp.empty() ? -1 : 0;
}
FILE* fopen(const char* path, const char* mode) {
  static const auto real =
      reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen"));
  const std::string text = path;
  const bool is_machines =
      text.starts_with("/sys/") || (text.starts_with("/proc/") && text.ends_with("/comm"));
  return real((is_machines ? harness::test_root() + text : text).c_str(), mode);
}
}

namespace standin {

template <size_t Size>
void put(char (&to)[Size], const std::string& from) {
  to[from.copy(to, Size - 1)] = '\0';
}

void write_machine_file(const std::string& path, const std::string& content) {
  const std::filesystem::path whole = harness::test_root() + path;
  std::filesystem::create_directories(whole.parent_path());
  harness::write_file(path, content + "\n");
}

// What the plugin wrote into the server's log since the last call.
std::vector<std::string> new_log_lines() {
  return std::exchange(log_lines, {});
}

bool take_option(const std::string& option) {
  const size_t space = option.find(' ');
  std::string value = option.substr(space + 1);
  char* words[] = {value.data()};
  const option_t* known = options;
  while (option.substr(0, space) != known->name) {
    ++known;
  }
  if (known->type == o_special) {
    return reinterpret_cast<int (*)(char**)>(known->addr)(words) != 0;
  }
  const int number = atoi(value.c_str());
  *static_cast<int*>(known->addr) = number;
  return number >= known->lower_limit && number <= known->upper_limit;
}

// Loads the plugin and reads its options, each "NAME VALUE"; false where one is refused.
bool load(const std::string& plugin, const std::vector<std::string>& words = {}) {
  void* const library = dlopen(plugin.c_str(), RTLD_NOW);
  if (library == nullptr ||
      strcmp(static_cast<char*>(dlsym(library, "pppd_version")), VERSION) != 0) {
    log_lines.emplace_back(library == nullptr ? dlerror() : "made for another pppd");
    return false;
  }
  reinterpret_cast<void (*)()>(dlsym(library, "plugin_init"))();
  return std::all_of(words.begin(), words.end(), take_option);
}

// A link begins, with the variables as they are.
void begin() {
  write_machine_file("/proc/" + std::to_string(getppid()) + "/comm", starter);
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
  put(peer_authname, name);
  auth_done[0] |= proof;
  tell(&auth_up_notifier, 0);
}

// As pppd's slprintf("%.*v").
std::string visible(const std::string& name) {
  std::string text;
  for (unsigned char byte : name) {
    if (byte >= 0x80) {
      text += "M-";
      byte -= 0x80;
    }
    if (byte < 0x20 || byte == 0x7f) {
      text += '^';
      byte ^= 0x40;
    }
    text += static_cast<char>(byte);
  }
  return text.substr(0, MAXNAMELEN);
}

int verify_response(int, char*, unsigned char* secret, int length, unsigned char*,
                    unsigned char* response, char*, int) {
  return response[0] == length && memcmp(response + 1, secret, response[0]) == 0;
}

enum Method { kPap = 0, kMd5 = CHAP_MD5, kMschap = CHAP_MICROSOFT, kMschap2 = CHAP_MICROSOFT_V2 };

bool password_is_right(Method method, char* name, std::string password) {
  char message[256] = "";
  if (method == kPap) {
    char* text = message;
    wordlist* nothing = nullptr;
    const int verdict =
        pap_auth_hook ? pap_auth_hook(name, password.data(), &text, &nothing, &nothing) : -1;
    answer = text;
    return verdict < 0 ? password == "right" : verdict != 0;
  }
  if (chap_verify_hook == nullptr) {
    return password == "right";
  }
  chap_digest_type digest{};
  digest.code = method;
  digest.verify_response = verify_response;
  unsigned char challenge[] = {3, 0x0a, 0xff, 0x00};
  std::string response = static_cast<char>(password.size()) + password;
  char server[] = "server";
  const int verdict =
      chap_verify_hook(name, server, 1, &digest, challenge,
                       reinterpret_cast<unsigned char*>(response.data()), message, sizeof message);
  answer = message;
  return verdict != 0;
}

// What comes of a right password.
enum class After { let_in, number_refused, hung_up } after_right_password;

// The caller gives a name and a password: true if that lets in, which is told as pppd tells it.
bool give_name(Method method, const std::string& name, const std::string& password = "right") {
  const int proof = method == kPap ? PAP_PEER : CHAP_PEER;
  std::string seen = visible(name);
  const bool is_right = password_is_right(method, seen.data(), password);
  if (!is_right || after_right_password != After::let_in) {
    give_up(is_right && after_right_password == After::hung_up ? EXIT_HANGUP
                                                               : EXIT_PEER_AUTH_FAILED);
    return false;
  }
  if ((auth_done[0] & proof) == 0) {
    let_in(method == kPap ? name : seen, proof);
  }
  return true;
}

struct Bytes {
  unsigned long long rx;
  unsigned long long tx;
};
void set_counters(Bytes bytes) {
  const std::string folder = std::string("/sys/class/net/") + ifname + "/statistics/";
  write_machine_file(folder + "rx_bytes", std::to_string(bytes.rx));
  write_machine_file(folder + "tx_bytes", std::to_string(bytes.tx));
}

void up(const std::string& interface, const std::string& ours, const std::string& his,
        Bytes bytes = {0, 0}) {
  put(ifname, interface);
  set_counters(bytes);
  inet_pton(AF_INET, ours.c_str(), &ipcp_gotoptions[0].ouraddr);
  inet_pton(AF_INET, his.c_str(), &ipcp_hisoptions[0].hisaddr);
  tell(&ip_up_notifier, 0);
}

// The kernel's counters, unless their folder is gone; pppd's own are the low 32 bits.
void down(unsigned seconds, Bytes bytes) {
  link_connect_time = seconds;
  link_stats.bytes_in = static_cast<unsigned>(bytes.rx);
  link_stats.bytes_out = static_cast<unsigned>(bytes.tx);
  if (std::filesystem::exists(harness::test_root() + "/sys")) {
    set_counters(bytes);
  }
  tell(&ip_down_notifier, 0);
}

}  // namespace standin
