// The environments of a real OpenVPN 2.6 server as records, and environments that nobody means
// well.

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <limits>

#include "display_text.h"
#include "openvpn_environment.h"

using namespace zorvctl;

namespace {

constexpr std::time_t kNow = 1800000000;

Environment recorded(const std::string& script) {
  std::ifstream file(ZORV_TEST_DATA "/openvpn-" + script + ".env");
  EXPECT_TRUE(file) << script;
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  std::vector<const char*> entries;
  entries.reserve(lines.size() + 1);
  for (const std::string& line : lines) {
    entries.push_back(line.c_str());
  }
  entries.push_back(nullptr);
  return environment_of(entries.data());
}

TEST(OpenVpn, ScriptsAreToldApart) {
  EXPECT_EQ(script_type(recorded("client-connect")), ScriptType::client_connect);
  EXPECT_EQ(script_type(recorded("client-disconnect")), ScriptType::client_disconnect);
  EXPECT_EQ(script_type(recorded("user-pass-verify")), ScriptType::user_pass_verify);
  EXPECT_EQ(script_type({{"script_type", "learn-address"}}), ScriptType::other);
  EXPECT_EQ(script_type({}), ScriptType::none);
}

TEST(OpenVpn, ARealLoginAndLogoutAreRecorded) {
  const db_conn_server_log login = login_record(recorded("client-connect"), kNow);
  EXPECT_STREQ(login.username, "alice");
  EXPECT_EQ(login.vpn_type, 4);
  EXPECT_EQ(login.action, 2);
  EXPECT_EQ(login.time, 1795234206U);
  EXPECT_EQ(login.uptime, 0U);
  EXPECT_STREQ(login.source_ip, "10.99.0.2");
  EXPECT_STREQ(login.vpn_ip, "10.8.0.2");
  EXPECT_STREQ(login.outgoing, "tun0");
  EXPECT_NE(std::string(login.device_info).find("linux"), std::string::npos);
  EXPECT_NE(std::string(login.device_info).find("2.6.14"), std::string::npos);

  const db_conn_server_log logout = logout_record(recorded("client-disconnect"), kNow);
  EXPECT_EQ(logout.action, 3);
  EXPECT_EQ(logout.uptime, 11U);
  EXPECT_EQ(logout.time, 1795234217U) << "the moment of the logout, not of the login";
  EXPECT_EQ(logout.tx_total, 2622);
  EXPECT_EQ(logout.rx_total, 2621);
  EXPECT_STREQ(logout.vpn_ip, "10.8.0.2");

  const db_conn_server_log failed = failed_login_record(recorded("user-pass-verify"), kNow);
  EXPECT_STREQ(failed.username, "alice");
  EXPECT_EQ(failed.action, 1);
  EXPECT_EQ(failed.time, static_cast<unsigned long long>(kNow));
  EXPECT_STREQ(failed.source_ip, "10.99.0.2") << "not trusted yet, but known";
  EXPECT_STREQ(failed.vpn_ip, "");
}

TEST(OpenVpn, WhatIsMissingHasAStandIn) {
  EXPECT_EQ(login_name({{"common_name", "cert"}}), "cert");
  EXPECT_EQ(login_name({{"common_name", "cert"}, {"username", ""}}), "cert");
  EXPECT_EQ(login_name({{"common_name", "cert"}, {"username", "user"}}), "user");
  EXPECT_STREQ(login_record({{"trusted_ip6", "2001:db8::1"}}, kNow).source_ip, "2001:db8::1");
  EXPECT_STREQ(login_record({{"ifconfig_pool_remote_ip6", "fd00::2"}}, kNow).vpn_ip, "fd00::2");
  EXPECT_EQ(login_record({}, kNow).time, static_cast<unsigned long long>(kNow));
  EXPECT_EQ(logout_record({{"time_duration", "11"}}, kNow).time,
            static_cast<unsigned long long>(kNow));
}

TEST(OpenVpn, OnlyAnExpiredTokenIsNoGuess) {
  EXPECT_TRUE(is_expired_token({{"session_state", "Expired"}}));
  EXPECT_TRUE(is_expired_token({{"session_state", "ExpiredEmptyUser"}}));
  for (const char* state : {"Initial", "Authenticated", "Invalid", "AuthenticatedEmptyUser", ""}) {
    EXPECT_FALSE(is_expired_token({{"session_state", state}})) << state;
  }
}

TEST(OpenVpn, NumbersThatAreNoneLoseNoRecord) {
  const std::pair<const char*, long long> cases[] = {
      {"2622", 2622},
      {"0", 0},
      {"", 0},
      {"-1", 0},
      {"12x", 0},
      {" 12", 0},
      {"0x10", 0},
      {"nan", 0},
      {"9223372036854775807", std::numeric_limits<long long>::max()},
      {"9223372036854775808", std::numeric_limits<long long>::max()},
      {"99999999999999999999999999", std::numeric_limits<long long>::max()},
  };
  for (const auto& [text, number] : cases) {
    const db_conn_server_log record =
        logout_record({{"username", "u"}, {"bytes_sent", text}, {"bytes_received", text}}, kNow);
    EXPECT_EQ(record.tx_total, number) << text;
    EXPECT_EQ(record.rx_total, number) << text;
    EXPECT_STREQ(record.username, "u");
  }
  // A login and a duration whose sum is no time.
  EXPECT_EQ(
      logout_record({{"time_unix", "18446744073709551615"}, {"time_duration", "1"}}, kNow).time,
      static_cast<unsigned long long>(kNow));
}

TEST(OpenVpn, HostileTextsStayWithinTheirFields) {
  const std::string huge(1 << 20, 'h');
  std::string accents;
  while (accents.size() < 3000) {
    accents += "\xE2\x82\xAC";
  }
  const std::string values[] = {huge,
                                accents,
                                std::string(1023, 'x') + "\xC3\xAB",
                                std::string(5000, '\xff'),
                                "\x1b[2J\n%s%n",
                                ""};
  const Environment sample = recorded("client-disconnect");
  for (const std::string& value : values) {
    Environment environment;
    for (const auto& [name, ignored] : sample) {
      environment[name] = value;
    }
    for (const auto& make : {login_record, logout_record, failed_login_record}) {
      const db_conn_server_log record = make(environment, kNow);
      for (const auto* field : {&record.username, &record.device_info, &record.source_ip,
                                &record.vpn_ip, &record.outgoing}) {
        const size_t length = strnlen(*field, sizeof *field);
        ASSERT_LT(length, sizeof *field);
        if (value.size() > 1024 && field == &record.username) {
          EXPECT_GE(length, 1022U) << "cut shorter than needed";
        }
      }
      if (value == accents) {
        EXPECT_EQ(display_text(record.username).find("\\x"), std::string::npos)
            << "cut within a character";
      }
      EXPECT_EQ(record.vpn_type, 4);
    }
  }
}

TEST(OpenVpn, AnEnvironmentIsReadEntryByEntry) {
  const char* entries[] = {"A=1", "B=x=y", "C=", "no equals sign", "=nameless", "A=2", nullptr};
  const Environment environment = environment_of(entries);
  EXPECT_EQ(environment, (Environment{{"A", "1"}, {"B", "x=y"}, {"C", ""}, {"", "nameless"}}));
  EXPECT_TRUE(environment_of(nullptr).empty());
}

}  // namespace
