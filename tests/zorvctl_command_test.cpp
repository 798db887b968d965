// zorvctl as it is run: its words, its output and its exit status, with the real daemon and
// without.

#include <gtest/gtest.h>
#include <jansson.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "harness/daemon.h"
#include "harness/test_root.h"

using harness::Daemon;
using harness::Outcome;

namespace {

Outcome zorvctl(std::vector<std::string> words, const std::string& input = "") {
  words.insert(words.begin(), harness::program("zorvctl"));
  return harness::run(words, input);
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::vector<std::string> split(const std::string& words) {
  std::istringstream stream(words);
  return {std::istream_iterator<std::string>(stream), {}};
}

// A member of one line of JSON, a number as its digits; "(none)" where there is none.
std::string member(const std::string& line, const char* name) {
  json_t* row = json_loads(line.c_str(), 0, nullptr);
  const json_t* value = json_object_get(row, name);
  std::string text = "(none)";
  if (json_is_string(value)) {
    text.assign(json_string_value(value), json_string_length(value));
  } else if (json_is_integer(value)) {
    text = std::to_string(json_integer_value(value));
  }
  json_decref(row);
  return text;
}

TEST(Words, ThatAreWrongEndWith2AndAreNamed) {
  struct Wrong {
    const char* words;
    const char* named;
  };
  const Wrong cases[] = {
      {"", "server-log"},
      {"frob", "'frob'"},
      {"server-log", "list"},
      {"server-log frob", "'frob'"},
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
      {"event delete 1", "'delete'"},
      {"block check", "user"},
      {"uuid new -n 0", "0"},
      {"gateway disable ipx 1", "'ipx'"},
      {"gateway disable openvpn one", "'one'"},
      {"option set {", "JSON"},
      {"option set []", "not an object"},
      {"hook frob", "'frob'"},
      {"hook openvpn", "script_type"},
  };
  unsetenv("script_type");
  for (const Wrong& wrong : cases) {
    const Outcome outcome = zorvctl(split(wrong.words));
    EXPECT_EQ(outcome.status, 2) << wrong.words;
    EXPECT_TRUE(outcome.err.starts_with("zorvctl: ")) << outcome.err;
    EXPECT_NE(outcome.err.find(wrong.named), std::string::npos) << wrong.words << outcome.err;
    EXPECT_EQ(outcome.out, "") << wrong.words;
  }
  EXPECT_EQ(zorvctl({"server-log", "add", "--username", std::string(1025, 'u')}).status, 2);
}

TEST(Words, HaveHelpAtEveryLevel) {
  const std::string version = zorvctl({"--version"}).out;
  EXPECT_TRUE(version.starts_with("zorvctl ")) << version;
  // Walks the tree that the help itself shows.
  std::vector<std::vector<std::string>> open{{}};
  size_t seen = 0;
  while (!open.empty()) {
    const auto path = open.back();
    open.pop_back();
    ++seen;
    auto words = path;
    words.emplace_back("--help");
    const Outcome outcome = zorvctl(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    bool in_subcommands = false;
    for (const std::string& line : lines_of(outcome.out)) {
      EXPECT_LE(line.size(), 120U) << line;
      if (in_subcommands && line.starts_with("  ")) {
        auto next = path;
        next.push_back(split(line)[0]);
        open.push_back(next);
      } else {
        in_subcommands = line == "Subcommands:";
      }
    }
  }
  EXPECT_GT(seen, 30U);
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
  };
  for (const auto& [typed, completed] : cases) {
    const std::string command =
        "source " + script + "; COMP_WORDS=('" + harness::program("zorvctl") + "' " + typed +
        "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _zorvctl; printf %s \"${COMPREPLY[*]}\"";
    EXPECT_EQ(harness::run({"/bin/bash", "-c", command}).out, completed) << typed;
  }
}

TEST(WithoutDaemon, EveryRequestEndsWith3AndSaysWhy) {
  const char* requests[] = {"server-log list",
                            "server-log list -j",
                            "client-log list -o csv",
                            "event list",
                            "session list -n 0",
                            "device list",
                            "block list",
                            "server-log add",
                            "event add",
                            "device add",
                            "server-log delete 1",
                            "block check u",
                            "session clean --all",
                            "block clean --all",
                            "block fail u",
                            "block remove u",
                            "uuid new",
                            "client-log list -S today"};
  for (const char* request : requests) {
    const Outcome outcome = zorvctl(split(request));
    EXPECT_EQ(outcome.status, 3) << request;
    EXPECT_NE(outcome.err.find("the daemon is not running"), std::string::npos) << outcome.err;
  }
}

class WithDaemon : public testing::Test {
 protected:
  // Runs it, expects 0 and no complaint.
  static std::string done(const std::vector<std::string>& words) {
    const Outcome outcome = zorvctl(words);
    EXPECT_EQ(outcome.status, 0) << words[0] << " " << words[1] << ": " << outcome.err;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }

  Daemon daemon_;
};

TEST_F(WithDaemon, EveryColumnComesBackUnderItsName) {
  // Each column gets a value of its own, so that a mix-up shows.
  const std::vector<std::string> columns = {
      "username", "vpn_type", "uptime",   "time",     "device_info", "source_ip", "vpn_ip",
      "tx_rate",  "rx_rate",  "tx_total", "rx_total", "outgoing",    "action"};
  std::vector<std::string> words{"server-log", "add"};
  std::string select;
  for (size_t index = 0; index < columns.size(); ++index) {
    std::string option = "--" + columns[index];
    std::replace(option.begin(), option.end(), '_', '-');
    words.push_back(option);
    words.push_back(std::to_string(100 + index));
    select += ", " + columns[index];
  }
  done(words);
  const auto stored = harness::sql("SELECT id" + select + " FROM conn_server_log");
  ASSERT_EQ(stored.size(), 1U);
  const std::string line = done({"server-log", "list", "-j"});
  std::string shown = member(line, "id");
  for (const std::string& column : columns) {
    shown += "|" + member(line, column.c_str());
  }
  EXPECT_EQ(shown, stored[0]);
  for (size_t index = 0; index < columns.size(); ++index) {
    const std::string value = std::to_string(100 + index);
    EXPECT_EQ(done({"server-log", "list", "-j", columns[index] + "=" + value}), line);
    EXPECT_EQ(done({"server-log", "list", "-j", columns[index] + "=99"}), "") << columns[index];
    EXPECT_EQ(done({"server-log", "list", "-j", "--sort", columns[index]}), line);
  }
}

TEST_F(WithDaemon, WordsOfTheCommandLineAreNoWordsInAName) {
  const std::string names[] = {"",
                               "list",
                               "event",
                               "[a,b]",
                               "[]",
                               "{}",
                               "-x",
                               "--all",
                               "--",
                               "++",
                               "a=b",
                               "%s%n",
                               "o'brien",
                               "two words",
                               "\x1b[2J",
                               "Zo\xC3\xAB",
                               std::string(1024, 'u')};
  for (const std::string& name : names) {
    done({"client-log", "add", "--username", name});
    EXPECT_EQ(member(done({"client-log", "list", "-j", "-n", "1", "-q"}), "username"), name);
    const auto found = lines_of(done({"client-log", "list", "-j", "username=" + name}));
    ASSERT_EQ(found.size(), 1U) << name;
    EXPECT_EQ(member(found[0], "username"), name);
  }
}

TEST_F(WithDaemon, LongListsComeWholeAndOnce) {
  harness::sql(
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 5003) "
      "INSERT INTO conn_server_log (username, vpn_type, uptime, time, device_info, source_ip, "
      "vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, action) "
      "SELECT 'u' || i, 4, 0, i, '', '', '', 0, 0, 0, 0, '', i % 3 + 1 FROM n");
  for (const std::vector<std::string>& order :
       {std::vector<std::string>{}, {"-r"}, {"--sort", "action"}, {"--sort", "username", "-r"}}) {
    std::vector<std::string> words{"server-log", "list", "-n", "0", "-j"};
    words.insert(words.end(), order.begin(), order.end());
    std::set<std::string> ids;
    const auto lines = lines_of(done(words));
    for (const std::string& line : lines) {
      ids.insert(member(line, "id"));
    }
    EXPECT_EQ(lines.size(), 5003U);
    EXPECT_EQ(ids.size(), 5003U);
  }
  EXPECT_EQ(lines_of(done({"server-log", "list", "-q"})).size(), 50U);
  EXPECT_EQ(lines_of(done({"server-log", "list", "-n", "0", "action=1", "-o", "csv"})).size(),
            1 + 1667U);
  EXPECT_EQ(
      lines_of(done({"server-log", "list", "-n", "0", "-j", "-S", "@100", "-U", "@102"})).size(),
      3U);
  const Outcome outcome = zorvctl({"server-log", "list", "-n", "2", "--offset", "1", "-j"});
  EXPECT_EQ(outcome.status, 0);
  ASSERT_EQ(lines_of(outcome.out).size(), 2U);
  EXPECT_EQ(member(lines_of(outcome.out)[0], "username"), "u5002");
  EXPECT_NE(outcome.err.find("-n 0"), std::string::npos) << outcome.err;
}

TEST_F(WithDaemon, DeletingAndCleaningSayWhenTheyDidNot) {
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
  EXPECT_EQ(zorvctl({"session", "list"}).status, 1);
}

TEST_F(WithDaemon, ADeviceKeepsItsUuid) {
  const std::string first = done({"device", "add", "--mac", "00:11", "--dev-name", "old"});
  EXPECT_EQ(first.size(), 36U) << first;
  EXPECT_EQ(done({"device", "add", "--mac", "00:11", "--dev-name", "new"}), first);
  const auto rows = lines_of(done({"device", "list", "-j"}));
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(member(rows[0], "dev_name"), "new");
  EXPECT_EQ(member(rows[0], "dev_uuid") + "\n", first);
  const auto fresh = lines_of(done({"uuid", "new", "-n", "20"}));
  EXPECT_EQ(std::set<std::string>(fresh.begin(), fresh.end()).size(), 20U);
}

TEST_F(WithDaemon, EventsAreTakenAndNoneIsKept) {
  done({"event", "add"});
  for (const char* format : {"table", "json", "csv"}) {
    EXPECT_EQ(done({"event", "list", "-n", "0", "-o", format}), "");
  }
}

TEST_F(WithDaemon, OutputThatCannotBeWrittenIsAFailure) {
  done({"server-log", "add"});
  const std::string command = harness::program("zorvctl") + " server-log list > /dev/full";
  EXPECT_EQ(harness::run({"/bin/sh", "-c", command}).status, 1);
}

}  // namespace
