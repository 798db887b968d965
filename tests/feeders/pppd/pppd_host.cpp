#include "pppd_host.h"

#include <arpa/inet.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <utility>

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

namespace {

std::vector<std::string> log_lines;
option_t* options;
std::string answer_text;
pppd_host::Caller who;

struct Notifier {
  notifier** chain;
  notify_func function;
  void* context;
};
std::vector<Notifier> notifiers;

void tell(notifier** chain, int value) {
  for (const Notifier& entry : notifiers) {
    if (entry.chain == chain) {
      entry.function(entry.context, value);
    }
  }
}

void enter(int new_one) {
  phase = new_one;
  tell(&phasechange, new_one);
}

// Closing the link and the signal of the server's program that answers it are a phase each.
void give_up(int why = EXIT_PEER_AUTH_FAILED) {
  status = why;
  enter(PHASE_TERMINATE);
  enter(PHASE_TERMINATE);
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

// Of pppd's formats only %q and %s are used: a name in quotes.
void write_line(const char* format, va_list values) {
  std::string plain = format;
  for (size_t at = 0; (at = plain.find("%q", at)) != std::string::npos;) {
    plain.replace(at, 2, "\"%s\"");
  }
  char line[2000];
  vsnprintf(line, sizeof line, plain.c_str(), values);  // NOLINT: made of the plugin's own texts
  log_lines.emplace_back(line);
}

int verify_response(int, char*, unsigned char* secret, int length, unsigned char*,
                    unsigned char* response, char* message, int space) {
  snprintf(message, static_cast<size_t>(space), "looked");
  return response[0] == length && memcmp(response + 1, secret, response[0]) == 0;
}

int other_chap(char*, char*, int, chap_digest_type*, unsigned char*, unsigned char*, char*, int) {
  ++pppd_host::other_calls;
  return pppd_host::other_verdict;
}

int other_pap(char*, char*, char**, wordlist**, wordlist**) {
  ++pppd_host::other_calls;
  return pppd_host::other_verdict;
}

// As pppd's chap_handle_response() and upap_rauthreq(), with its own check_passwd().
bool is_let_in(pppd_host::Method method, char* name, const std::string& password) {
  char message[256] = "";
  if (method == pppd_host::Method::pap) {
    char* text = message;
    std::string copy = password;
    wordlist* nothing = nullptr;
    const int verdict =
        pap_auth_hook != nullptr ? pap_auth_hook(name, copy.data(), &text, &nothing, &nothing) : -1;
    answer_text = text;
    return verdict < 0 ? password == pppd_host::kSecret : verdict != 0;
  }
  chap_digest_type digest{};
  digest.code = method == pppd_host::Method::chap_md5 ? CHAP_MD5
                : method == pppd_host::Method::mschap ? CHAP_MICROSOFT
                                                      : CHAP_MICROSOFT_V2;
  digest.verify_response = verify_response;
  unsigned char challenge[] = {3, 0x0a, 0xff, 0x00};
  std::string response = static_cast<char>(password.size()) + password;
  char our_own_name[] = "server";
  const int verdict =
      chap_verify_hook(name, our_own_name, 1, &digest, challenge,
                       reinterpret_cast<unsigned char*>(response.data()), message, sizeof message);
  answer_text = message;
  return verdict != 0;
}

}  // namespace

extern "C" {

notifier* phasechange;
notifier* auth_up_notifier;
notifier* ip_up_notifier;
notifier* ip_down_notifier;
int (*chap_verify_hook)(char*, char*, int, chap_digest_type*, unsigned char*, unsigned char*, char*,
                        int);
int (*pap_auth_hook)(char*, char*, char**, wordlist**, wordlist**);
int phase;
volatile int status;
int devfd;
int auth_done[NUM_PPP];
char peer_authname[MAXNAMELEN + 1];
char user[MAXNAMELEN];
char remote_number[MAXNAMELEN];
char* ipparam;
char ifname[MAXIFNAMELEN];
unsigned link_connect_time;
pppd_stats link_stats;
lcp_options lcp_wantoptions[NUM_PPP];
ipcp_options ipcp_gotoptions[NUM_PPP];
ipcp_options ipcp_hisoptions[NUM_PPP];

void add_options(option_t* table) {
  options = table;
}
void add_notifier(notifier** chain, notify_func function, void* context) {
  notifiers.push_back({chain, function, context});
}
void warn(char* format, ...) {
  va_list values;
  va_start(values, format);
  write_line(format, values);
  va_end(values);
}
void notice(char*, ...) __attribute__((alias("warn")));
void error(char*, ...) __attribute__((alias("warn")));
void option_error(char*, ...) __attribute__((alias("warn")));

int get_secret(int, char* name, char*, char* secret, int* length, int) {
  strcpy(secret, pppd_host::kSecret);
  *length = static_cast<int>(strlen(secret));
  return strcmp(name, "nobody") != 0;
}

// The kernel's side: sockets of L2TP, and files of the machine below the test's root.
int getpeername(int, sockaddr* name, socklen_t* size) {
  sockaddr_pppol2tp end{};
  if (who.kernel_l2tp.empty()) {
    return -1;
  }
  end.sa_family = AF_PPPOX;
  end.sa_protocol = PX_PROTO_OL2TP;
  inet_pton(AF_INET, who.kernel_l2tp.c_str(), &end.pppol2tp.addr.sin_addr);
  memcpy(name, &end, sizeof end);
  *size = sizeof end;
  return 0;
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

namespace pppd_host {
namespace {

template <size_t Size>
void put(char (&to)[Size], const std::string& from) {
  to[from.copy(to, Size - 1)] = '\0';
}

void write_machine_file(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(
      std::filesystem::path(harness::test_root() + path).parent_path());
  harness::write_file(path, content);
}

void set_counters(Bytes bytes) {
  const std::string folder = std::string("/sys/class/net/") + ifname + "/statistics/";
  write_machine_file(folder + "rx_bytes", std::to_string(bytes.rx) + "\n");
  write_machine_file(folder + "tx_bytes", std::to_string(bytes.tx) + "\n");
}

void let_in(const std::string& name, int method) {
  put(peer_authname, name);
  auth_done[0] |= method;
  tell(&auth_up_notifier, 0);
}

bool take_option(const std::string& option) {
  const size_t space = option.find(' ');
  std::string value = option.substr(space + 1);
  char* words[] = {value.data()};
  for (const option_t* known = options; known->name != nullptr; ++known) {
    if (option.substr(0, space) != known->name) {
      continue;
    }
    if (known->type == o_special) {
      return reinterpret_cast<int (*)(char**)>(known->addr)(words) != 0;
    }
    const int number = atoi(value.c_str());
    *static_cast<int*>(known->addr) = number;
    return number >= known->lower_limit && number <= known->upper_limit;
  }
  return false;
}

}  // namespace

bool load(const std::string& plugin, const std::vector<std::string>& words) {
  void* const library = dlopen(plugin.c_str(), RTLD_NOW);
  if (library == nullptr ||
      strcmp(static_cast<char*>(dlsym(library, "pppd_version")), VERSION) != 0) {
    log_lines.emplace_back(library == nullptr ? dlerror() : "made for another pppd");
    return false;
  }
  reinterpret_cast<void (*)()>(dlsym(library, "plugin_init"))();
  return std::all_of(words.begin(), words.end(), take_option);
}

void begin(const Caller& caller) {
  static std::string parameter;
  who = caller;
  write_machine_file("/proc/" + std::to_string(getppid()) + "/comm", caller.starter + "\n");
  parameter = caller.ipparam;
  ipparam = parameter.empty() ? nullptr : parameter.data();
  put(remote_number, caller.remote_number);
  auth_done[0] = 0;
  status = EXIT_OK;
  enter(PHASE_ESTABLISH);
  enter(PHASE_AUTHENTICATE);
}

void allow_proofs(bool eap, bool chap, bool pap) {
  lcp_wantoptions[0].neg_eap = eap;
  lcp_wantoptions[0].neg_chap = chap;
  lcp_wantoptions[0].neg_upap = pap;
}

bool allows_eap() {
  return lcp_wantoptions[0].neg_eap != 0;
}

void load_other_plugin() {
  chap_verify_hook = other_chap;
  pap_auth_hook = other_pap;
}

bool give_name(Method method, const std::string& name, const std::string& password) {
  const int proof = method == Method::pap ? PAP_PEER : CHAP_PEER;
  std::string seen = visible(name);
  if (!is_let_in(method, seen.data(), password) || after_right_password == After::number_refused) {
    give_up();
    return false;
  }
  if (after_right_password == After::hung_up) {
    give_up(EXIT_HANGUP);
    return false;
  }
  if ((auth_done[0] & proof) == 0) {
    let_in(method == Method::pap ? name : seen, proof);
  }
  return true;
}

std::string answer() {
  return answer_text;
}

void prove_by_eap(const std::string& name) {
  let_in(name, EAP_PEER);
}

void prove_ourselves(const std::string& name) {
  put(user, name);
  auth_done[0] |= CHAP_WITHPEER;
}

void lose_answer() {
  give_up();
}

void up(const std::string& interface, const std::string& ours, const std::string& his,
        Bytes bytes) {
  put(ifname, interface);
  set_counters(bytes);
  inet_pton(AF_INET, ours.c_str(), &ipcp_gotoptions[0].ouraddr);
  inet_pton(AF_INET, his.c_str(), &ipcp_hisoptions[0].hisaddr);
  tell(&ip_up_notifier, 0);
}

void down(unsigned seconds, Bytes bytes) {
  link_connect_time = seconds;
  link_stats.bytes_in = static_cast<unsigned>(bytes.rx);
  link_stats.bytes_out = static_cast<unsigned>(bytes.tx);
  if (std::filesystem::exists(harness::test_root() + "/sys")) {
    set_counters(bytes);
  }
  tell(&ip_down_notifier, 0);
}

std::vector<std::string> log() {
  return std::exchange(log_lines, {});
}

}  // namespace pppd_host
