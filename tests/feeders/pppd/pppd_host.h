// Stands in for pppd: its variables, hooks and notifiers, with zorv.so loaded. A test says what
// happens on the link; what pppd would do then is done here.
#pragma once

#include <string>
#include <vector>

namespace pppd_host {

// Loads the plugin and reads its options, each "NAME VALUE"; false where one is refused.
bool load(const std::string& plugin, const std::vector<std::string>& options = {});

// Who calls, as pppd learns it, and by what.
struct Caller {
  std::string starter = "pptpctrl";  // the program that started pppd
  std::string remote_number{};
  std::string ipparam{};
  std::string kernel_l2tp{};  // the device is a kernel's L2TP socket to this address
};
void begin(const Caller& caller);

// Which proofs the server's options allow, and whether EAP is still among them.
void allow_proofs(bool eap, bool chap, bool pap);
bool allows_eap();

// Another plugin, loaded behind ours, verifies all names with `other_verdict`.
void load_other_plugin();
inline int other_verdict = 0;
inline int other_calls = 0;

enum class Method { chap_md5, mschap, mschap2, pap };
inline constexpr const char* kSecret = "right";  // of everybody
// What comes of a right password.
enum class After { let_in, number_refused, hung_up };
inline After after_right_password = After::let_in;
// The caller gives a name and a password. True: let in, which is told as pppd tells it.
bool give_name(Method method, const std::string& name, const std::string& password = kSecret);
// What the caller was answered last.
std::string answer();
// The other end has proven itself in a way without hooks, or we have to it.
void prove_by_eap(const std::string& name);
void prove_ourselves(const std::string& name);
// The other end does not answer a challenge any more.
void lose_answer();

struct Bytes {
  unsigned long long rx;
  unsigned long long tx;
};
void up(const std::string& interface, const std::string& ours, const std::string& his, Bytes bytes);
// The kernel's counters, unless its folder of them is gone; pppd's own are the low 32 bits.
void down(unsigned seconds, Bytes bytes);

// What the plugin wrote into the server's log since the last call.
std::vector<std::string> log();

}  // namespace pppd_host
