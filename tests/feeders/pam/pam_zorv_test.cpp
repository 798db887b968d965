// The PAM module in real stacks, beside pam_permit.so for the right password and pam_deny.so for a
// wrong one, with the real daemon.
#include <gtest/gtest.h>
#include <security/pam_appl.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>

#include "harness/daemon.h"
#include "harness/fake_service.h"
#include "harness/test_root.h"

extern "C" {
#include "feeder_text.h"
}

namespace {

using harness::sql;
using Texts = std::vector<std::string>;

constexpr const char* kPolicy = "/etc/config/vpn_block.conf";

// What libpam and the module tell the user.
int converse(int count, const pam_message** messages, pam_response** ret_responses, void* user) {
  for (int i = 0; i < count; ++i) {
    static_cast<Texts*>(user)->emplace_back(messages[i]->msg);
  }
  *ret_responses =
      static_cast<pam_response*>(calloc(static_cast<size_t>(count), sizeof(pam_response)));
  return PAM_SUCCESS;
}

void write_service(const std::string& name, const std::string& text) {
  std::string lines;
  for (const std::string& line : harness::lines_of(text)) {
    const size_t module = line.find("pam_zorv.so");
    lines +=
        module == std::string::npos ? line : std::string(line).insert(module, ZORV_PAM_FOLDER "/");
    lines += "\n";
  }
  harness::write_file("/etc/pam.d/" + name, lines);
}

// The documented stack, around a module that says what the password is.
void write_stack(const std::string& name, const std::string& password_module,
                 const std::string& options) {
  write_service(name, "auth requisite pam_zorv.so preauth " + options +
                          "\nauth [success=1 default=bad] " + password_module +
                          "\nauth [default=die] pam_zorv.so authfail " + options +
                          "\nauth sufficient pam_zorv.so authsucc " + options +
                          "\naccount required pam_permit.so\n");
}

struct Handle {
  Handle(const std::string& service, const char* user, const char* host) {
    const std::string folder = harness::test_root() + "/etc/pam.d";
    pam_start_confdir(service.c_str(), user, &conversation, folder.c_str(), &pamh);
    pam_set_item(pamh, PAM_RHOST, host);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() { pam_end(pamh, status); }
  int authenticate(int flags = 0) { return status = pam_authenticate(pamh, flags); }
  int account() { return status = pam_acct_mgmt(pamh, 0); }

  Texts told;
  pam_conv conversation{converse, &told};
  pam_handle_t* pamh = nullptr;
  int status = PAM_SUCCESS;
};

int login(const std::string& service, const char* user = "eve") {
  return Handle(service, user, "192.0.2.7").authenticate();
}

Texts failures() {
  return sql("SELECT username, limit_count FROM privilege_user_block");
}
Texts records() {
  return sql("SELECT username, vpn_type, source_ip, action FROM conn_server_log");
}

class PamZorv : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(harness::test_root() + "/etc/pam.d");
    write_stack("right", "pam_permit.so", "type=openvpn deadline=2");
    write_stack("wrong", "pam_deny.so", "type=openvpn deadline=2");
    write_stack("right-untyped", "pam_permit.so", "silent debug");
    write_stack("wrong-untyped", "pam_deny.so", "");
    set_policy(2);
  }
  static void set_policy(int limit) {
    harness::write_file(kPolicy, R"({"global": {"enable": true, "time": 4, "limit": )" +
                                     std::to_string(limit) + "}}");
  }
  void start() {
    platform_.emplace();
    daemon_.emplace();
  }
  std::optional<harness::PlatformDaemon> platform_;
  std::optional<harness::Daemon> daemon_;
};

TEST_F(PamZorv, CountsRecordsBlocksAndForgets) {
  start();
  EXPECT_EQ(login("wrong"), PAM_AUTH_ERR);
  EXPECT_EQ(failures(), Texts{"eve|1"});
  EXPECT_EQ(records(), Texts{"eve|4|192.0.2.7|1"});
  EXPECT_EQ(login("right"), PAM_SUCCESS);
  EXPECT_EQ(failures(), Texts{}) << "a good login forgets";
  EXPECT_EQ(login("wrong"), PAM_AUTH_ERR);
  EXPECT_EQ(login("wrong"), PAM_AUTH_ERR);

  // Blocked: the right password is refused and the user told, the refusal is recorded, not counted.
  Handle blocked("right", "eve", nullptr);
  EXPECT_EQ(blocked.authenticate(), PAM_AUTH_ERR);
  EXPECT_EQ(blocked.told, Texts{"blocked, try again in 4 minutes"});
  EXPECT_EQ(failures(), Texts{"eve|2"});
  EXPECT_EQ(records().back(), "eve|4||1");
  EXPECT_EQ(records().size(), 4u);
  EXPECT_EQ(login("right", "adam"), PAM_SUCCESS);

  Handle silent_service("right-untyped", "eve", "h");
  EXPECT_EQ(silent_service.authenticate(), PAM_AUTH_ERR);
  EXPECT_EQ(silent_service.told, Texts{});
  Handle silent_caller("right", "eve", "h");
  EXPECT_EQ(silent_caller.authenticate(PAM_SILENT), PAM_AUTH_ERR);
  EXPECT_EQ(silent_caller.told, Texts{});
  EXPECT_EQ(records().size(), 5u) << "without a type nothing is recorded";

  sql("DELETE FROM privilege_user_block");
  EXPECT_EQ(login("right"), PAM_SUCCESS);
  EXPECT_EQ(login("wrong-untyped"), PAM_AUTH_ERR);
  EXPECT_EQ(failures(), Texts{"eve|1"});
  EXPECT_EQ(records().size(), 5u);
}

// "required" asks for the password of a blocked user all the same, to tell him why he is refused.
TEST_F(PamZorv, StaysWithItsRefusal) {
  start();
  for (const auto& [name, module] :
       {std::pair{"right-required", "pam_permit.so"}, std::pair{"wrong-required", "pam_deny.so"}}) {
    write_stack(name, module, "type=l2tp");
    std::string stack = harness::read_file(std::string("/etc/pam.d/") + name);
    harness::write_file(std::string("/etc/pam.d/") + name,
                        stack.replace(stack.find("requisite"), 9, "required"));
  }
  EXPECT_EQ(login("wrong-required"), PAM_AUTH_ERR);
  EXPECT_EQ(login("wrong-required"), PAM_AUTH_ERR);
  for (const char* service : {"right-required", "wrong-required"}) {
    EXPECT_EQ(login(service), PAM_AUTH_ERR) << service;
    EXPECT_EQ(failures(), Texts{"eve|2"}) << service;
  }
  EXPECT_EQ(records().size(), 4u) << "one record a login";

  // The refusal is this login's, not the handle's.
  Handle handle("right-required", "eve", "h");
  EXPECT_EQ(handle.authenticate(), PAM_AUTH_ERR);
  sql("DELETE FROM privilege_user_block");
  EXPECT_EQ(handle.authenticate(), PAM_SUCCESS);
}

// preauth alone, or before a module that is only sufficient, lets nobody in.
TEST_F(PamZorv, LetsNobodyInByItself) {
  start();
  write_service("alone", "auth required pam_zorv.so preauth\naccount required pam_zorv.so\n");
  write_service("sufficient", "auth required pam_zorv.so preauth\nauth sufficient pam_deny.so\n");
  EXPECT_NE(login("alone"), PAM_SUCCESS);
  EXPECT_NE(login("sufficient"), PAM_SUCCESS);
}

TEST_F(PamZorv, ForgetsAsAccountModule) {
  start();
  write_service("account",
                "auth required pam_permit.so\n"
                "account required pam_zorv.so\naccount required pam_permit.so\n");
  EXPECT_EQ(login("wrong"), PAM_AUTH_ERR);
  Handle handle("account", "eve", "h");
  EXPECT_EQ(handle.account(), PAM_SUCCESS);
  EXPECT_EQ(failures(), Texts{});
}

// One that is away, that cannot read its policy, or that is stopped.
TEST_F(PamZorv, RefusesNobodyForTheDaemonsSake) {
  EXPECT_EQ(login("right"), PAM_SUCCESS);
  EXPECT_EQ(login("wrong"), PAM_AUTH_ERR);
  daemon_.emplace();
  EXPECT_EQ(login("right"), PAM_SUCCESS);
  EXPECT_EQ(login("wrong"), PAM_AUTH_ERR);
  EXPECT_EQ(failures(), Texts{"eve|1"}) << "counting takes no policy";

  // While the first phase has waited its deadline out, the second does not ask at all: the count
  // stays what it was, also after the daemon has read all that was sent to it.
  daemon_->process().send(SIGSTOP);
  EXPECT_EQ(login("wrong"), PAM_AUTH_ERR);
  EXPECT_EQ(login("right"), PAM_SUCCESS);
  daemon_->process().send(SIGCONT);
  platform_.emplace();
  EXPECT_EQ(login("right", "adam"), PAM_SUCCESS);
  EXPECT_EQ(failures(), Texts{"eve|1"});
  EXPECT_EQ(records().size(), 1u);
}

// The phases of a login share one deadline: a slow answer leaves the next call too little time for
// another one, and the record behind it is not tried at all.
TEST_F(PamZorv, WaitsForOneDeadlineALogin) {
  const auto slowly = [](const char* answer) {
    return [=] {
      std::this_thread::sleep_for(std::chrono::milliseconds(1200));
      return answer;
    };
  };
  const harness::FakeService fake("@/var/run/zorvd.sock",
                                  {{"db_privilege_user_block_check", slowly("0")},
                                   {"db_privilege_user_block_insert", slowly("")},
                                   {"db_conn_insert", [] { return ""; }}});
  EXPECT_EQ(login("wrong"), PAM_AUTH_ERR);
  EXPECT_EQ(fake.calls(),
            (Texts{"db_privilege_user_block_check eve", "db_privilege_user_block_insert eve"}));
}

// A server that tries again with the same handle: each login has a deadline of its own, also where
// no preauth begins it.
TEST_F(PamZorv, CountsEveryTryOfOneHandle) {
  start();
  set_policy(9);
  write_service("authfail", "auth required pam_zorv.so authfail deadline=1\n");
  Handle whole("wrong", "eve", "h");
  Handle part("authfail", "adam", "h");
  for (const int signal_number : {SIGSTOP, SIGCONT, SIGCONT}) {
    daemon_->process().send(signal_number);
    EXPECT_EQ(whole.authenticate(), PAM_AUTH_ERR);
    EXPECT_EQ(part.authenticate(), PAM_AUTH_ERR);
  }
  EXPECT_EQ(failures(), (Texts{"eve|2", "adam|2"}));
}

TEST_F(PamZorv, IsMendedRatherThanGuessedAt) {
  start();
  for (const char* options :
       {"", "silent", "preauth type=ocserv", "preauth deadline=0", "preauth deadline=-1",
        "preauth deadline=5s", "preauth deadline=3601", "preauth deadline=", "preauth foo"}) {
    write_service("broken", std::string("auth required pam_zorv.so ") + options +
                                "\nauth required pam_permit.so\n");
    EXPECT_EQ(login("broken"), PAM_SYSTEM_ERR) << options;
  }
}

TEST(BlockText, SaysHowLongRoundedUp) {
  const struct {
    uint64_t seconds;
    const char* text;
  } cases[] = {{0, "now"},
               {1, "in 1 second"},
               {59, "in 59 seconds"},
               {60, "in 1 minute"},
               {181, "in 4 minutes"},
               {240, "in 4 minutes"},
               {7140, "in 119 minutes"},
               {7141, "in 2 hours"},
               {47 * 3600 + 1, "in 2 days"},
               {UINT64_MAX - 1, "in 213503982334602 days"},
               {UINT64_MAX, "later"}};
  for (const auto& [seconds, text] : cases) {
    char said[80];
    block_text(BLOCK_TEXT_SENTENCE, seconds, said, sizeof said);
    EXPECT_EQ(said, std::string("blocked, try again ") + text);
  }
  char shown[8];
  shown_text("a\nb\x7f%s\xc3", shown, sizeof shown);
  EXPECT_STREQ(shown, "a_b_%s\xc3");
  shown_text("123456789", shown, sizeof shown);
  EXPECT_STREQ(shown, "1234567");
  shown_text(nullptr, shown, sizeof shown);
  EXPECT_STREQ(shown, "");
}

}  // namespace
