// The PAM module in real stacks.
#include <gtest/gtest.h>
#include <security/pam_appl.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <thread>

#include "harness/daemon.h"
#include "harness/fake_service.h"

extern "C" {
#include "feeder_text.h"
}

namespace {

using harness::sql;
using Texts = std::vector<std::string>;

int converse(int count, const pam_message** messages, pam_response** ret_responses, void* told) {
  for (int i = 0; i < count; ++i) {
    *static_cast<std::string*>(told) += messages[i]->msg;
  }
  *ret_responses = static_cast<pam_response*>(calloc(size_t(count), sizeof(pam_response)));
  return PAM_SUCCESS;
}

const std::string kModule = " " ZORV_PAM_FOLDER "/pam_zorv.so ";

void write_service(const std::string& name, const std::string& lines) {
  std::filesystem::create_directories(harness::test_root() + "/etc/pam.d");
  harness::write_file("/etc/pam.d/" + name, lines + "\n");
}

// Whoever is blocked is asked for the password all the same.
void write_stack(const std::string& name, const std::string& password_module,
                 const std::string& options) {
  write_service(name, "auth required" + kModule + "preauth " + options +
                          "\nauth [success=1 default=bad] " + password_module +
                          "\nauth [default=die]" + kModule + "authfail " + options +
                          "\nauth sufficient" + kModule + "authsucc " + options +
                          "\naccount required" + kModule + "\naccount required pam_permit.so");
}

struct Handle {
  explicit Handle(const std::string& service) {
    const std::string folder = harness::test_root() + "/etc/pam.d";
    pam_start_confdir(service.c_str(), "eve", &conversation, folder.c_str(), &pamh);
    pam_set_item(pamh, PAM_RHOST, "h");
  }
  ~Handle() { pam_end(pamh, PAM_SUCCESS); }
  int login(int flags = 0) { return pam_authenticate(pamh, flags); }

  std::string told;
  pam_conv conversation{converse, &told};
  pam_handle_t* pamh = nullptr;
};

// Eve's failures, where she has some, and how many records there are.
constexpr const char* kCounts =
    "SELECT limit_count FROM privilege_user_block UNION ALL SELECT count(*) FROM conn_server_log";

TEST(PamZorv, CountsRecordsBlocksAndForgets) {
  const harness::PlatformDaemon platform;
  const harness::Daemon daemon;
  harness::write_file("/etc/config/vpn_block.conf",
                      R"({"global": {"enable": true, "time": 2.5, "limit": 2}})");
  write_stack("right", "pam_permit.so", "silent debug");
  write_stack("wrong", "pam_deny.so", "type=openvpn");
  write_service("alone", "auth required" + kModule + "preauth");
  const struct {
    const char* service;
    int status;
    Texts counted;
    const char* told = "";
    int flags = 0;
  } logins[] = {
      {"alone", PAM_PERM_DENIED, {"0"}},
      {"wrong", PAM_AUTH_ERR, {"1", "1"}},
      {"right", PAM_SUCCESS, {"1"}},
      {"wrong", PAM_AUTH_ERR, {"1", "2"}},
      {"wrong", PAM_AUTH_ERR, {"2", "3"}},
      {"wrong", PAM_AUTH_ERR, {"2", "4"}, "", PAM_SILENT},
      {"wrong", PAM_AUTH_ERR, {"2", "5"}, "blocked, try again in 3 minutes"},
      {"right", PAM_AUTH_ERR, {"2", "5"}},
  };
  std::map<std::string, Handle> handles;
  for (const auto& one : logins) {
    Handle& handle = handles.try_emplace(one.service, one.service).first->second;
    EXPECT_EQ(handle.login(one.flags), one.status);
    EXPECT_EQ(handle.told, one.told);
    EXPECT_EQ(sql(kCounts), one.counted) << &one - logins;
  }
  // The refusal is this login's, not the handle's.
  EXPECT_EQ(pam_acct_mgmt(handles.at("right").pamh, 0), PAM_AUTH_ERR);
  EXPECT_EQ(sql(kCounts), (Texts{"2", "5"}));
  EXPECT_EQ(pam_acct_mgmt(Handle("right").pamh, 0), PAM_SUCCESS);
  EXPECT_EQ(sql(kCounts), Texts{"5"});
  EXPECT_EQ(handles.at("right").login(), PAM_SUCCESS);
  EXPECT_EQ(sql("SELECT DISTINCT username, vpn_type, source_ip, action FROM conn_server_log"),
            Texts{"eve|4|h|1"});
}

TEST(PamZorv, RefusesNobodyForTheDaemonsSake) {
  write_stack("right", "pam_permit.so", "");
  write_stack("wrong", "pam_deny.so", "type=openvpn deadline=2");
  write_service("authfail", "auth required" + kModule + "authfail deadline=1");
  EXPECT_EQ(Handle("right").login(), PAM_SUCCESS);
  {
    const harness::FakeService zorvd("@/var/run/zorvd.sock", "db_conn_insert", "");
    EXPECT_EQ(Handle("wrong").login(), PAM_AUTH_ERR);
    EXPECT_EQ(zorvd.calls(), Texts{}) << "what is not counted is not recorded";
  }
  // A slow answer leaves the next phase too little time, and the record none. The next try has a
  // deadline of its own, also where no preauth begins it.
  const auto slowly = [] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    return "0";
  };
  const std::string check = "db_privilege_user_block_check";
  const std::string insert = "db_privilege_user_block_insert";
  const harness::FakeService zorvd("@/var/run/zorvd.sock",
                                   {{check, slowly}, {insert, slowly}, {"db_conn_insert", slowly}});
  Handle handle("authfail");
  EXPECT_EQ(Handle("wrong").login(), PAM_AUTH_ERR);
  EXPECT_EQ(handle.login(), PAM_AUTH_ERR);
  EXPECT_EQ(handle.login(), PAM_AUTH_ERR);
  EXPECT_EQ(zorvd.calls(),
            (Texts{check + " eve", insert + " eve", insert + " eve", insert + " eve"}));
}

TEST(PamZorv, RecordsLaterWhatTheDaemonWasNotThereFor) {
  std::filesystem::create_directories(harness::test_root() + "/var/spool/zorv");
  write_stack("wrong", "pam_deny.so", "type=openvpn");
  EXPECT_EQ(Handle("wrong").login(), PAM_AUTH_ERR);
  const harness::Daemon daemon;
  EXPECT_EQ(harness::zorvctl({"spool", "deliver"}).status, 0);
  EXPECT_EQ(sql(kCounts), Texts{"1"}) << "recorded, not counted";
}

TEST(PamZorv, IsMendedRatherThanGuessedAt) {
  for (const char* options : {"silent", "preauth type=ocserv", "preauth deadline=0",
                              "preauth deadline=5s", "preauth deadline=3601", "preauth foo"}) {
    write_service("broken", "auth required" + kModule + options + "\nauth required pam_permit.so");
    EXPECT_EQ(Handle("broken").login(), PAM_SYSTEM_ERR) << options;
  }
}

TEST(FeederText, SaysHowLongRoundedUpAndShowsNoControlCharacter) {
  const std::pair<uint64_t, const char*> cases[] = {
      {1, "blocked, try again in 1 second"},
      {169201, "blocked, try again in 2 days"},
      {UINT64_MAX, "blocked, try again later"},
  };
  char text[80];
  for (const auto& [seconds, said] : cases) {
    block_text(BLOCK_TEXT_SENTENCE, seconds, text, sizeof text);
    EXPECT_STREQ(text, said);
  }
  shown_text("a\nb\x7f%s\xc3", text, 7);
  EXPECT_STREQ(text, "a_b_%s");
}

}  // namespace
