// zorvctl as it is run: its words, its output and its exit status, with the real daemon and
// without.
#include <gtest/gtest.h>
#include <jansson.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <set>
#include <sstream>

#include "harness/command.h"
#include "harness/test_root.h"
#include "json_ref.h"

namespace {

using namespace std::string_literals;
using harness::done;
using harness::lines_of;
using harness::Outcome;
using harness::zorvctl;
using Words = std::vector<std::string>;

Words split(const std::string& words) {
  std::istringstream stream(words);
  return {std::istream_iterator<std::string>(stream), {}};
}

// A member of one line of JSON, a number as its digits; "(none)" where there is none.
std::string member(const std::string& line, const char* name) {
  const JsonRef row(json_loads(line.c_str(), 0, nullptr));
  const json_t* value = json_object_get(row.get(), name);
  if (json_is_string(value)) {
    return {json_string_value(value), json_string_length(value)};
  }
  return json_is_integer(value) ? std::to_string(json_integer_value(value)) : "(none)";
}

TEST(Words, ThatAreWrongEndWith2AndAreNamed) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "server-log"},
      {"frob", "'frob'"},
      {"server-log", "list"},
      {"server-log list --frob", "'--frob'"},
      {"server-log list -n many", "'many'"},
      {"server-log list -n -1", "'-1'"},
      {"server-log list -n 99999999999999999999", "'99999999999999999999'"},
      {"server-log list --offset x", "'x'"},
      {"server-log list -o xml", "'xml'"},
      {"server-log list --sort name", "'name'"},
      {"server-log list name=alice", "'name'"},
      {"server-log list alice", "'alice'"},
      {"server-log list action=explode", "'explode'"},
      {"server-log list -S someday", "'someday'"},
      {"server-log list -U 2026-02-30", "'2026-02-30'"},
      {"server-log add --vpn-type ipx", "'ipx'"},
      {"server-log add --id 5", "'--id'"},
      {"device add --dev-uuid u", "'--dev-uuid'"},
      {"server-log delete", "ids"},
      {"server-log delete 1 two", "'two'"},
      {"server-log delete 0x10", "'0x10'"},
      {"server-log clean", "--all"},
      {"block clean", "--all"},
      {"event delete 1", "'delete'"},
      {"block check", "user"},
      {"uuid new -n 0", "0"},
      {"uuid new -n 0x3", "'0x3'"},
      {"gateway disable ipx 1", "'ipx'"},
      {"gateway disable openvpn one", "'one'"},
      {"option set {", "JSON"},
      {"option set []", "not an object"},
  };
  for (const auto& [words, named] : cases) {
    const Outcome outcome = zorvctl(split(words));
    EXPECT_EQ(outcome.status, 2) << words;
    EXPECT_TRUE(outcome.err.starts_with("zorvctl: ")) << outcome.err;
    EXPECT_NE(outcome.err.find(named), std::string::npos) << words << outcome.err;
    EXPECT_EQ(outcome.out, "") << words;
  }
  EXPECT_EQ(zorvctl({"hook", "frob"}).status, 1) << "2 would mean that the login is deferred";
  EXPECT_EQ(zorvctl({"server-log", "add", "--username", std::string(1025, 'u')}).status, 2);
  EXPECT_EQ(zorvctl({"block", "check", std::string(1025, 'u')}).status, 2);
}

TEST(Words, AreCompletedFromTheHelp) {
  const std::string script = ZORV_SOURCE "/packaging/completion/zorvctl.bash";
  const std::pair<const char*, const char*> cases[] = {
      {"blo", "block"},
      {"server-log li", "list"},
      {"server-log list -o j", "json"},
      {"server-log list --rev", "--reverse"},
      {"server-log list --sort source", "source_ip"},
      {"server-log list rx_to", "rx_total="},
      {"session list --sort ''", "id uuid username sid device_name expire_time time"},
      {"session list t", "time="},
      {"device list --sort u", "user_id"},
      {"session list -n ''", ""},
      {"session list --offset t", ""},
      {"session list username = t", ""},
      {"session list username =", ""},
      {"session add --sid t", ""},
  };
  for (const auto& [typed, completed] : cases) {
    const std::string command =
        "source " + script + "; COMP_WORDS=('" + harness::program("zorvctl") + "' " + typed +
        "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _zorvctl; printf %s \"${COMPREPLY[*]}\"";
    EXPECT_EQ(harness::run({"/bin/bash", "-c", command}).out, completed) << typed;
  }
}

TEST(WithoutDaemon, EveryRequestEndsWith3AndSaysWhy) {
  for (const char* request :
       {"server-log list", "server-log list -j", "client-log list -o csv", "event list",
        "session list -n 0", "device list", "block list", "server-log add", "event add",
        "device add", "server-log delete 1", "block check u", "session clean --all", "block fail u",
        "block remove u", "uuid new", "client-log list -S today"}) {
    const Outcome outcome = zorvctl(split(request));
    EXPECT_EQ(outcome.status, 3) << request;
    EXPECT_NE(outcome.err.find("the daemon is not running"), std::string::npos) << outcome.err;
  }
}

TEST(WithoutDaemon, AnAddressThatCannotBeIsSaid) {
  setenv("ZORV_ROOT", ("/" + std::string(88, 'r')).c_str(), 1);
  const Outcome outcome = zorvctl({"uuid", "new"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_NE(outcome.err.find("ZORV_ROOT is too long"), std::string::npos) << outcome.err;
}

class WithDaemon : public testing::Test {
 protected:
  harness::Daemon daemon_;
};

TEST_F(WithDaemon, EveryColumnComesBackUnderItsName) {
  // Each column gets a value of its own, so that a mix-up shows.
  const Words columns = {"username",  "vpn_type", "uptime",  "time",    "device_info",
                         "source_ip", "vpn_ip",   "tx_rate", "rx_rate", "tx_total",
                         "rx_total",  "outgoing", "action"};
  Words words{"server-log", "add"};
  std::string select;
  for (const std::string& column : columns) {
    std::string option = "--" + column;
    std::replace(option.begin(), option.end(), '_', '-');
    words.insert(words.end(), {option, std::to_string(100 + words.size())});
    select += ", " + column;
  }
  done(words);
  const auto stored = harness::sql("SELECT id" + select + " FROM conn_server_log");
  ASSERT_EQ(stored.size(), 1U);
  const std::string line = done({"server-log", "list", "-j"});
  std::string shown = member(line, "id");
  for (const std::string& column : columns) {
    const std::string value = member(line, column.c_str());
    shown += "|" + value;
    EXPECT_EQ(done({"server-log", "list", "-j", column + "=" + value}), line);
    EXPECT_EQ(done({"server-log", "list", "-j", column + "=99"}), "") << column;
    EXPECT_EQ(done({"server-log", "list", "-j", "--sort", column}), line);
  }
  EXPECT_EQ(shown, stored[0]);
}

TEST_F(WithDaemon, WordsOfTheCommandLineAreNoWordsInAName) {
  for (const std::string& name :
       {""s, "list"s, "[a,b]"s, "[]"s, "{}"s, "-x"s, "--all"s, "--"s, "++"s, "a=b"s, "%s%n"s,
        "o'brien"s, "two words"s, "\x1b[2J"s, "Zo\xC3\xAB"s, std::string(1024, 'u')}) {
    done({"client-log", "add", "--username", name});
    EXPECT_EQ(member(done({"client-log", "list", "-j", "-n", "1", "-q"}), "username"), name);
    const auto found = lines_of(done({"client-log", "list", "-j", "username=" + name}));
    ASSERT_EQ(found.size(), 1U) << name;
    EXPECT_EQ(member(found[0], "username"), name);
  }
}

TEST_F(WithDaemon, LongListsComeWholeAndOnce) {
  harness::insert_rows("conn_server_log", 5003, "username, uptime, time, action",
                       "'u' || i, 0, i, i % 3 + 1");
  for (const char* order : {"", "-r", "--sort action", "--sort username -r"}) {
    std::set<std::string> ids;
    const auto lines = lines_of(done(split("server-log list -n 0 -j "s + order)));
    for (const std::string& line : lines) {
      ids.insert(member(line, "id"));
    }
    EXPECT_EQ(lines.size(), 5003U);
    EXPECT_EQ(ids.size(), 5003U);
  }
  const std::pair<const char*, size_t> lists[] = {
      {"server-log list -q", 50U},
      {"server-log list -n 0 action=1 -o csv", 1 + 1667U},
      {"server-log list -n 0 -j -S @100 -U @102", 3U},
  };
  for (const auto& [words, lines] : lists) {
    EXPECT_EQ(lines_of(done(split(words))).size(), lines) << words;
  }
  const Outcome outcome = zorvctl({"server-log", "list", "-n", "2", "--offset", "1", "-j"});
  EXPECT_EQ(outcome.status, 0);
  ASSERT_EQ(lines_of(outcome.out).size(), 2U);
  EXPECT_EQ(member(lines_of(outcome.out)[0], "username"), "u5002");
  EXPECT_NE(outcome.err.find("-n 0"), std::string::npos) << outcome.err;
}

TEST_F(WithDaemon, OutputThatCannotBeWrittenIsSaidOnce) {
  const std::pair<const char*, const char*> cases[] = {
      {"server-log list > /dev/full", "No space left"},
      {"uuid new > /dev/full", "No space left"},
      {"option get > /dev/full", "No space left"},
      {"uuid new -n 9999 > /dev/full", ""},
      {"--help > /dev/full", "No space left"},
      {"--version > /dev/full", "No space left"},
      {"block list --help >&-", "Bad file"},
      {"block check u >&-", "Bad file"},
  };
  for (const auto& [words, reason] : cases) {
    const Outcome outcome =
        harness::run({"/bin/sh", "-c", harness::program("zorvctl") + " " + words});
    EXPECT_EQ(outcome.status, 1) << words;
    const auto lines = lines_of(outcome.err);
    ASSERT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const auto& line) {
                              return line.starts_with("zorvctl: cannot write the output");
                            }),
              1)
        << words << outcome.err;
    EXPECT_NE(outcome.err.find(reason), std::string::npos) << words << outcome.err;
  }
}

TEST_F(WithDaemon, WhatTheDatabaseRefusedIsNotTakenForKept) {
  done({"server-log", "add"});
  done({"block", "fail", "counted"});
  for (const std::string table : {"conn_server_log", "conn_client_log", "privilege_user_block"}) {
    for (const std::string change : {"INSERT", "UPDATE"}) {
      harness::sql("CREATE TRIGGER no_" + table + change + " BEFORE " + change + " ON " + table +
                   " BEGIN SELECT RAISE(FAIL, 'refused'); END");
    }
  }
  for (const char* words :
       {"server-log add", "client-log add", "block fail new", "block fail counted"}) {
    const Outcome outcome = zorvctl(split(words));
    EXPECT_EQ(outcome.status, 1) << words;
    EXPECT_NE(outcome.err.find("the daemon kept nothing"), std::string::npos) << outcome.err;
  }
}

TEST_F(WithDaemon, DeletingAndCleaningSayWhenTheyDidNot) {
  const Outcome nobody = zorvctl({"device", "delete", "99"});
  EXPECT_EQ(nobody.status, 0);
  EXPECT_NE(nobody.err.find("there is no 99"), std::string::npos) << nobody.err;
  const Outcome unknown = zorvctl({"block", "remove", "nobody-such"});
  EXPECT_EQ(unknown.status, 0);
  EXPECT_NE(unknown.err.find("there is no user 'nobody-such'"), std::string::npos) << unknown.err;
  done({"device", "delete", "99", "-q"});
  done({"block", "remove", "nobody-such", "-q"});
  for (int row = 0; row < 4; ++row) {
    done({"server-log", "add"});
  }
  done({"server-log", "delete", "2", "3"});
  EXPECT_EQ(lines_of(done({"server-log", "list", "-j"})).size(), 2U);
  // After a delete this table is not emptied by a clean until the daemon is started again.
  const Outcome refused = zorvctl({"server-log", "clean", "--all"});
  const bool left = !harness::sql("SELECT id FROM conn_server_log").empty();
  EXPECT_EQ(refused.status, left ? 1 : 0) << refused.err;
  EXPECT_EQ(refused.err.empty(), !left);
  done({"client-log", "add"});
  done({"client-log", "clean", "--all"});
  EXPECT_EQ(done({"client-log", "list", "-j"}), "");
  // After a clean, a delete empties this table.
  for (int row = 0; row < 3; ++row) {
    done({"client-log", "add"});
  }
  const auto ids = harness::sql("SELECT id FROM conn_client_log");
  ASSERT_EQ(ids.size(), 3U);
  const Outcome emptied = zorvctl({"client-log", "delete", ids[1], ids[0]});
  EXPECT_EQ(emptied.status, harness::sql("SELECT id FROM conn_client_log").empty() ? 1 : 0);
  EXPECT_EQ(emptied.err.find("all connections are gone") != std::string::npos, emptied.status == 1)
      << emptied.err;
  done({"event", "add"});
  EXPECT_EQ(done({"event", "list", "-n", "0"}), "") << "taken and not kept";
}

TEST_F(WithDaemon, SessionsExpireAndAreLostAfterTheSecondDelete) {
  done({"session", "add", "--username", "early", "--expire-time", "2h ago"});
  done({"session", "add", "--username", "late", "--expire-time", "+2h"});
  const auto table = lines_of(done({"session", "list", "-q"}));
  ASSERT_EQ(table.size(), 2U);
  EXPECT_TRUE(table[0].ends_with("valid")) << table[0];
  EXPECT_TRUE(table[1].ends_with("expired")) << table[1];
  done({"session", "delete", "1"});
  EXPECT_EQ(zorvctl({"session", "delete", "2"}).status, 1);
  for (const char* verb : {"list", "add", "delete 2"}) {
    const Outcome lost = zorvctl(split("session "s + verb));
    EXPECT_EQ(lost.status, 1) << verb;
    EXPECT_NE(lost.err.find("could not read its table"), std::string::npos) << lost.err;
  }
}

TEST(WithoutDatabase, WhatIsNotKeptIsSaid) {
  std::filesystem::create_directory(harness::test_root() + harness::kDatabase);
  const harness::Daemon daemon;
  for (const char* words : {"server-log add", "client-log add", "block fail u", "block remove u",
                            "server-log delete 1"}) {
    const Outcome outcome = zorvctl(split(words));
    EXPECT_EQ(outcome.status, 1) << words;
    EXPECT_NE(outcome.err.find("could not read its table"), std::string::npos) << outcome.err;
  }
}

TEST_F(WithDaemon, ADeviceKeepsItsUuid) {
  const std::string first = done({"device", "add", "--mac", "00:11", "--dev-name", "old"});
  EXPECT_EQ(first.size(), 36U) << first;
  EXPECT_EQ(done({"device", "add", "--mac", "00:11", "--dev-name", "new"}), first);
  const std::string row = done({"device", "list", "-j"});
  EXPECT_EQ(member(row, "dev_name"), "new");
  EXPECT_EQ(member(row, "dev_uuid") + "\n", first);
  const auto fresh = lines_of(done({"uuid", "new", "-n", "20"}));
  EXPECT_EQ(std::set<std::string>(fresh.begin(), fresh.end()).size(), 20U);
}

TEST_F(WithDaemon, BlockListsUsersWhoseStateIsUnknownAndThePolicy) {
  done({"block", "fail", "bob"});
  const Outcome list = zorvctl({"block", "list"});
  EXPECT_EQ(list.status, 0);
  EXPECT_NE(list.out.find("bob"), std::string::npos);
  EXPECT_NE(list.out.find("unknown"), std::string::npos) << list.out;
  EXPECT_NE(list.err.find("vpn_block.conf"), std::string::npos) << list.err;
  EXPECT_EQ(zorvctl({"block", "policy"}).status, 1);
  done({"block", "clean", "--all"});
  EXPECT_TRUE(harness::sql("SELECT * FROM privilege_user_block").empty());
  const harness::PlatformDaemon platform;
  harness::write_file("/etc/config/vpn_block.conf",
                      R"({"global": {"enable": true, "limit": 3, "time": 1.5}})");
  EXPECT_EQ(done({"block", "policy", "-j"}), "{\"enable\": true, \"limit\": 3, \"time\": 1.5}\n");
  EXPECT_NE(done({"block", "policy"}).find("1 min 30 s"), std::string::npos);
}

}  // namespace
