// The PAM module in real stacks, beside pam_permit.so for the right password and pam_deny.so for a
// wrong one, with the real daemon.
#include <gtest/gtest.h>
#include <security/pam_appl.h>
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <thread>

#include "harness/daemon.h"
#include "harness/fake_service.h"

extern "C" {
#include "feeder_text.h"
}

namespace {

using harness::sql;
using Texts = std::vector<std::string>;

// Keeps what libpam and the module tell the user.
int converse(int count, const pam_message** messages, pam_response** ret_responses, void* told) {
  for (int i = 0; i < count; ++i) {
    *static_cast<std::string*>(told) += messages[i]->msg;
  }
  *ret_responses = static_cast<pam_response*>(calloc(size_t(count), sizeof(pam_response)));
  return PAM_SUCCESS;
}

const std::string kModule = " " ZORV_PAM_FOLDER "/pam_zorv.so ";

void write_service(const std::string& name, const std::string& lines) {
  harness::write_file("/etc/pam.d/" + name, lines + "\n");
}

// The documented stack, around a module that says what the password is.
void write_stack(const std::string& name, const std::string& password_module,
                 const std::string& options, const std::string& control = "requisite") {
  write_service(name, "auth " + control + kModule + "preauth " + options +
                          "\nauth [success=1 default=bad] " + password_module +
                          "\nauth [default=die]" + kModule + "authfail " + options +
                          "\nauth sufficient" + kModule + "authsucc " + options +
                          "\naccount required" + kModule + "\naccount required pam_permit.so");
}

struct Handle {
  explicit Handle(const std::string& service, const char* user = "eve", const char* host = "h") {
    const std::string folder = harness::test_root() + "/etc/pam.d";
    pam_start_confdir(service.c_str(), user, &conversation, folder.c_str(), &pamh);
    pam_set_item(pamh, PAM_RHOST, host);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() { pam_end(pamh, PAM_SUCCESS); }
  int login(int flags = 0) { return pam_authenticate(pamh, flags); }

  std::string told;
  pam_conv conversation{converse, &told};
  pam_handle_t* pamh = nullptr;
};

// "USER|COUNT", and how many records there are.
Texts counted() {
  return sql(
      "SELECT username || '|' || limit_count FROM privilege_user_block "
      "UNION ALL SELECT count(*) FROM conn_server_log");
}

class PamZorv : public testing::Test {
 protected:
  PamZorv() {
    std::filesystem::create_directories(harness::test_root() + "/etc/pam.d");
    write_stack("right", "pam_permit.so", "type=openvpn deadline=2");
    write_stack("wrong", "pam_deny.so", "type=openvpn deadline=2");
    harness::write_file("/etc/config/vpn_block.conf",
                        R"({"global": {"enable": true, "time": 4, "limit": 2}})");
  }
  std::optional<harness::PlatformDaemon> platform_{std::in_place};
  std::optional<harness::Daemon> daemon_{std::in_place};
};

TEST_F(PamZorv, CountsRecordsBlocksAndForgets) {
  write_stack("silent", "pam_permit.so", "silent debug");
  write_stack("untyped", "pam_deny.so", "");
  // Asks for the password of a blocked user all the same.
  write_stack("right-required", "pam_permit.so", "type=l2tp", "required");
  write_stack("wrong-required", "pam_deny.so", "type=l2tp", "required");
  write_service("alone", "auth required" + kModule + "preauth");
  const char* const blocked = "blocked, try again in 4 minutes";
  const struct {
    const char* service;
    int status;
    Texts counted;
    const char* told = "";
    const char* user = "eve";
    int flags = 0;
  } logins[] = {
      {"wrong", PAM_AUTH_ERR, {"eve|1", "1"}},
      {"right", PAM_SUCCESS, {"1"}},
      {"untyped", PAM_AUTH_ERR, {"eve|1", "1"}},
      {"wrong", PAM_AUTH_ERR, {"eve|2", "2"}},
      {"right", PAM_AUTH_ERR, {"eve|2", "3"}, blocked},
      {"right-required", PAM_AUTH_ERR, {"eve|2", "4"}, blocked},
      {"wrong-required", PAM_AUTH_ERR, {"eve|2", "5"}, blocked},
      {"silent", PAM_AUTH_ERR, {"eve|2", "5"}},
      {"right", PAM_AUTH_ERR, {"eve|2", "6"}, "", "eve", PAM_SILENT},
      {"right", PAM_SUCCESS, {"eve|2", "6"}, "", "adam"},
      {"alone", PAM_PERM_DENIED, {"eve|2", "6"}, "", "adam"},
  };
  for (const auto& one : logins) {
    SCOPED_TRACE(one.service);
    Handle handle(one.service, one.user);
    EXPECT_EQ(handle.login(one.flags), one.status);
    EXPECT_EQ(handle.told, one.told);
    EXPECT_EQ(counted(), one.counted);
  }
  // The refusal is this login's, not the handle's.
  Handle handle("right-required", "eve", nullptr);
  EXPECT_EQ(handle.login(), PAM_AUTH_ERR);
  EXPECT_EQ(pam_acct_mgmt(handle.pamh, 0), PAM_AUTH_ERR);
  EXPECT_EQ(counted(), (Texts{"eve|2", "7"}));
  EXPECT_EQ(pam_acct_mgmt(Handle("right").pamh, 0), PAM_SUCCESS);
  EXPECT_EQ(counted(), Texts{"7"});
  EXPECT_EQ(handle.login(), PAM_SUCCESS);
  EXPECT_EQ(sql("SELECT DISTINCT username, vpn_type, source_ip, action FROM conn_server_log"),
            (Texts{"eve|4|h|1", "eve|2|h|1", "eve|2||1"}));
}

TEST_F(PamZorv, RefusesNobodyForTheDaemonsSake) {
  platform_.reset();
  daemon_.reset();
  EXPECT_EQ(Handle("wrong").login(), PAM_AUTH_ERR);
  EXPECT_EQ(Handle("right").login(), PAM_SUCCESS);
  {
    const harness::FakeService failing("@/var/run/zorvd.sock", "db_conn_insert", "");
    EXPECT_EQ(Handle("wrong").login(), PAM_AUTH_ERR);
    EXPECT_EQ(failing.calls(), Texts{}) << "what is not counted is not recorded";
  }
  daemon_.emplace();
  EXPECT_EQ(Handle("right").login(), PAM_SUCCESS);
  EXPECT_EQ(Handle("wrong").login(), PAM_AUTH_ERR);
  EXPECT_EQ(counted(), (Texts{"eve|1", "1"})) << "counting takes no policy";
}

// The phases of a login share one deadline: a slow answer leaves the next call too little time for
// another one, and the record behind it is not tried at all.
TEST_F(PamZorv, WaitsForOneDeadlineALogin) {
  daemon_.reset();
  const auto slowly = [](const char* answer) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    return answer;
  };
  const harness::FakeService zorvd("@/var/run/zorvd.sock",
                                   {{"db_privilege_user_block_check", [=] { return slowly("0"); }},
                                    {"db_privilege_user_block_insert", [=] { return slowly(""); }},
                                    {"db_conn_insert", [] { return ""; }}});
  EXPECT_EQ(Handle("wrong").login(), PAM_AUTH_ERR);
  EXPECT_EQ(zorvd.calls(),
            (Texts{"db_privilege_user_block_check eve", "db_privilege_user_block_insert eve"}));
}

// A server that tries again with the same handle: each login has a deadline of its own, also where
// no preauth begins it.
TEST_F(PamZorv, CountsEveryTryOfOneHandle) {
  write_service("authfail", "auth required" + kModule + "authfail deadline=1");
  Handle handle("authfail");
  for (const int signal_number : {SIGSTOP, SIGCONT, SIGCONT}) {
    daemon_->process().send(signal_number);
    EXPECT_EQ(handle.login(), PAM_AUTH_ERR);
  }
  EXPECT_EQ(counted(), (Texts{"eve|2", "0"}));
}

TEST_F(PamZorv, IsMendedRatherThanGuessedAt) {
  for (const char* options :
       {"", "silent", "preauth type=ocserv", "preauth deadline=0", "preauth deadline=-1",
        "preauth deadline=5s", "preauth deadline=3601", "preauth deadline=", "preauth foo"}) {
    write_service("broken", "auth required" + kModule + options + "\nauth required pam_permit.so");
    EXPECT_EQ(Handle("broken").login(), PAM_SYSTEM_ERR) << options;
  }
}

TEST(FeederText, SaysHowLongRoundedUpAndShowsNoControlCharacter) {
  const std::pair<uint64_t, std::string> cases[] = {
      {0, "blocked, try again now; Blocked, try again in 0 minutes"},
      {1, "blocked, try again in 1 second; Blocked, try again in 1 minute"},
      {59, "blocked, try again in 59 seconds; Blocked, try again in 1 minute"},
      {60, "blocked, try again in 1 minute; Blocked, try again in 1 minute"},
      {181, "blocked, try again in 4 minutes; Blocked, try again in 4 minutes"},
      {7140, "blocked, try again in 119 minutes; Blocked, try again in 119 minutes"},
      {7141, "blocked, try again in 2 hours; Blocked, try again in 120 minutes"},
      {169201, "blocked, try again in 2 days; Blocked, try again in 2821 minutes"},
      {UINT64_MAX, "blocked, try again later; Blocked"},
  };
  char text[80];
  for (const auto& [seconds, said] : cases) {
    block_text(BLOCK_TEXT_SENTENCE, seconds, text, sizeof text);
    const std::string sentence = text;
    block_text(BLOCK_TEXT_MINUTES, seconds, text, sizeof text);
    EXPECT_EQ(sentence + "; " + text, said);
  }
  shown_text("a\nb\x7f%s\xc3", text, 7);
  EXPECT_STREQ(text, "a_b_%s");
  shown_text(nullptr, text, sizeof text);
  EXPECT_STREQ(text, "");
}

}  // namespace
