// zorvctl as it is run: its words, its output and its exit status, with the real daemon and
// without.
#include <gtest/gtest.h>
#include <jansson.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <sstream>
#include <thread>

#include "harness/bus_peer.h"
#include "harness/command.h"
#include "harness/test_root.h"
#include "json_ref.h"
#include "zorv_api_db.h"
#include "zorv_schema.h"

namespace {

using namespace std::string_literals;
using harness::done;
using harness::lines_of;
using harness::Outcome;
using harness::RawSocket;
using harness::sql;
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

// What "list" shows, by its ids.
Words listed_ids(const std::string& noun, const std::string& words) {
  Words ids;
  for (const std::string& line : lines_of(done(split(noun + " list -q -o csv " + words)))) {
    ids.push_back(line.substr(0, line.find(',')));
  }
  return ids;
}

// Its exit status is `status`, and what it complains of ends so.
void expect_complaint(const Words& words, int status, const std::string& complaint) {
  const Outcome outcome = zorvctl(words);
  EXPECT_EQ(outcome.status, status) << testing::PrintToString(words) << outcome.err;
  EXPECT_TRUE(outcome.err.ends_with(complaint + "\n")) << outcome.err;
}

TEST(Words, ThatAreWrongEndWith2AndAreNamed) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "server-log"},
      {"frob", "'frob'"},
      {"server-log list -n -1", "'-1'"},
      {"server-log list --offset 99999999999999999999", "'99999999999999999999'"},
      {"server-log list -o xml", "'xml' is none of table, json, csv"},
      {"server-log list name=alice", "'name'"},
      {"server-log list action=explode", "'explode'"},
      {"server-log list -S someday", "'someday'"},
      {"server-log add --vpn-type ipx", "'ipx'"},
      {"server-log add --id 5", "'--id'"},
      {"server-log delete 1 two", "'two'"},
      {"session delete 1 2", "At Most 1"},
      {"event delete 1", "'delete'"},
      {"block add", "'add'"},
      {"uuid new -n 0x3", "'0x3'"},
  };
  for (const auto& [words, named] : cases) {
    const Outcome outcome = zorvctl(split(words));
    EXPECT_EQ(outcome.status, 2) << words;
    EXPECT_TRUE(outcome.err.starts_with("zorvctl: ")) << outcome.err;
    EXPECT_NE(outcome.err.find(named), std::string::npos) << words << outcome.err;
    EXPECT_EQ(outcome.out, "") << words;
  }
  EXPECT_EQ(zorvctl({"hook", "frob"}).status, 1) << "2 would mean that the login is deferred";
}

TEST(Words, AreCompletedFromWhatTheProgramSays) {
  const std::string script = ZORV_SOURCE "/packaging/completion/zorvctl.bash";
  const std::pair<const char*, const char*> cases[] = {
      {"blo", "block"},
      {"server-log list -o ''", "table json csv"},
      {"server-log list --rev", "--reverse"},
      {"server-log list rx_to", "rx_total="},
      {"session list --sort ''", "id uuid username sid device_name expire_time time"},
      {"session list -n ''", ""},
      {"session list username = t", ""},
  };
  for (const auto& [typed, completed] : cases) {
    const std::string command =
        "source " + script + "; COMP_WORDS=('" + harness::program("zorvctl") + "' " + typed +
        "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _zorvctl; printf %s \"${COMPREPLY[*]}\"";
    EXPECT_EQ(harness::run({"/bin/bash", "-c", command}).out, completed) << typed;
  }
}

TEST(Answers, EndWithAStatusAndASentenceEach) {
  const struct {
    int status;
    int exit;
    const char* sentence;
  } cases[] = {
      {KX_TIMEOUT, 3, "the daemon did not answer in time"},
      {KX_NOT_READY, 3, "the daemon is not running"},
      {KX_IS_PAUSED, 3, "the daemon is stopping"},
      {KX_IS_REJECT, 1, "or is run by a user whom this one does not trust"},
      {KX_IO_FAILURE, 3, "the connection to the daemon broke"},
      {KX_IS_BUSY, 3, "the daemon is too busy"},
      {KX_IS_INVALID, 1, "the daemon does not know this request"},
  };
  for (const char* words :
       {"uuid new", "block check alice", "session list", "device add", "client-log clean --all"}) {
    for (const auto& one : cases) {
      const RawSocket listener = RawSocket::listening(kZorvdAddress);
      std::thread daemon([&] {
        const RawSocket caller = listener.accept();
        caller.receive();
        caller.send(harness::Frame{.kind = 2, .detail = one.status, .method = ""}.bytes());
      });
      expect_complaint(split(words), one.exit, one.sentence);
      RawSocket::connected(kZorvdAddress);  // in case that nobody came
      daemon.join();
    }
    expect_complaint(split(words), 3, "the daemon is not running");
  }
  setenv("ZORV_ROOT", ("/" + std::string(88, 'r')).c_str(), 1);
  expect_complaint({"uuid", "new"}, 3, "ZORV_ROOT is too long for the daemon's address");
}

class WithDaemon : public testing::Test {
 protected:
  harness::Daemon daemon_;
};

TEST_F(WithDaemon, EveryFieldComesBackUnderItsName) {
  for (const zorv::TableSchema* table :
       {&zorv::kServerLog, &zorv::kClientLog, &zorv::kServerList, &zorv::kDeviceInfo}) {
    const std::string noun = table->noun;
    // Each field gets a value of its own, so that a mix-up shows.
    Words words{noun, "add"};
    for (const zorv::Field& field : table->fields) {
      if (table->is_given(field)) {
        std::string option = "--"s + field.name;
        std::replace(option.begin(), option.end(), '_', '-');
        words.insert(words.end(), {option, std::to_string(10 + words.size())});
      }
    }
    const std::string answer = zorvctl(words).out;
    const std::string line = done({noun, "list", "-j"});
    Words filtered{noun, "list", "-j"};
    size_t place = 2;
    for (const zorv::Field& field : table->fields) {
      const std::string value = member(line, field.name);
      filtered.push_back(field.name + "="s + value);
      if (table->is_given(field)) {
        EXPECT_EQ(value, words.at(place + 1)) << noun << words[place];
        place += 2;
      }
    }
    EXPECT_EQ(done(filtered), line);
    EXPECT_EQ(answer, table->kept != nullptr ? member(line, table->kept->name) + "\n" : "");
  }
  EXPECT_EQ(sql("SELECT * FROM conn_server_log"),
            Words{"1|12|14|16|18|20|22|24|26|28|30|32|34|36"});
}

TEST_F(WithDaemon, WordsOfTheCommandLineAreNoWordsInAName) {
  for (const std::string& name :
       {""s, "[a,b]"s, "{}"s, "-x"s, "--all"s, "--"s, "a=b"s, "%s%n"s, "o'brien"s, "two words"s,
        "\x1b[2J"s, "Zo\xC3\xAB"s, std::string(1024, 'u')}) {
    done({"client-log", "add", "--username", name});
    EXPECT_EQ(member(done({"client-log", "list", "-j", "-n", "1", "-q"}), "username"), name);
    EXPECT_EQ(lines_of(done({"client-log", "list", "-j", "username=" + name})).size(), 1U) << name;
  }
}

TEST_F(WithDaemon, ListsShowTheRowsThatAreAskedForInOrder) {
  const std::string table = "privilege_user_block";
  harness::insert_rows(table, 4203, "username, limit_count, timestamp",
                       "CASE i WHEN 77 THEN '' ELSE 'u' || i % 3 END, i * 7 % 4207, i");
  const auto expect_list = [&](const char* words, const std::string& rows) {
    EXPECT_EQ(listed_ids("block", words), sql("SELECT id FROM " + table + " " + rows)) << words;
  };
  const std::pair<const char*, const char*> lists[] = {
      {"-n 0 -S @4000", "WHERE timestamp >= 4000 ORDER BY id DESC"},
      {"-n 0", "ORDER BY id DESC"},
      {"-n 0 -r", "ORDER BY id"},
      {"-n 0 --sort limit_count", "ORDER BY limit_count"},
      {"-n 0 --sort limit_count -r", "ORDER BY limit_count DESC"},
      {"", "ORDER BY id DESC LIMIT 50"},
      {"-n 3 --offset 4198", "ORDER BY id DESC LIMIT 3 OFFSET 4198"},
      {"-n 7 --offset 4200", "ORDER BY id DESC LIMIT 7 OFFSET 4200"},
      {"-n 7 --offset 9 -r -S @0", "ORDER BY id LIMIT 7 OFFSET 9"},
      {"-n 0 username=u2", "WHERE username = 'u2' ORDER BY id DESC"},
      {"-n 0 username=u1 limit_count=14", "WHERE id = 2 AND username = 'u1'"},
      {"username=", "WHERE username = ''"},
      {"-n 0 -U @2100 -r", "WHERE timestamp <= 2100 ORDER BY id"},
      {"-n 0 -S @4000 --sort limit_count", "WHERE timestamp >= 4000 ORDER BY limit_count"},
      {"-n 9 --offset 1 -S @4000 -U @4050 username=u1",
       "WHERE timestamp BETWEEN 4000 AND 4050 AND username = 'u1' ORDER BY id DESC LIMIT 9 OFFSET "
       "1"},
  };
  for (const auto& [words, rows] : lists) {
    expect_list(words, rows);
    EXPECT_TRUE(words != lists[0].first || !harness::log_holds("OFFSET 2000"))
        << "the rest of the table is older";
  }
  // As if a clock was set back, once or often.
  for (const char* times : {"4100 WHERE id = 3", "limit_count"}) {
    sql("UPDATE " + table + " SET timestamp = " + times);
    expect_list(lists[0].first, lists[0].second);
  }
  expect_complaint(split("block list -o csv -n 4202"), 0,
                   "there are more users than these 4202: -n 0 shows all");
  done(split("block list -o csv -n 4203"));
}

TEST_F(WithDaemon, ManyIdsAreDeletedAndTheOthersNamed) {
  harness::insert_rows("conn_client_log", 5000, "username", "'u'");
  const Outcome old = zorvctl(split("client-log delete 3 9999 1 2 3 5 6"));
  EXPECT_EQ(old.status, 0);
  EXPECT_EQ(old.err,
            "zorvctl: there is no 9999 in client-log\nzorvctl: there is no 3 in client-log\n");
  EXPECT_FALSE(harness::log_holds("OFFSET 2000")) << "they stand at one end of the table";
  done(split("client-log delete -q 4999 5000 4998 4997 4996 4995 7777"));
  EXPECT_EQ(sql("SELECT count(*), min(id), max(id) FROM conn_client_log"), Words{"4989|4|4994"});
  sql("CREATE TRIGGER kept BEFORE DELETE ON conn_client_log WHEN OLD.id = 11 "
      "BEGIN SELECT RAISE(IGNORE); END");
  expect_complaint(split("client-log delete 10 11 12 13"), 1,
                   "cannot delete 11 of client-log: it is still there, the daemon's log says why");
  expect_complaint(split("client-log delete 11"), 1,
                   "it is still there, the daemon's log says why");
}

TEST_F(WithDaemon, DeletingAndCleaningSayWhenTheyDidNot) {
  expect_complaint({"device", "delete", "99"}, 0, "there is no 99 in device");
  expect_complaint({"block", "remove", "nobody"}, 0,
                   "there is no user 'nobody' with failed logins");
  harness::insert_rows("conn_server_log", 4, "username", "'u'");
  harness::insert_rows("conn_client_log", 4, "username", "'u'");
  done({"server-log", "delete", "2", "3"});
  expect_complaint({"server-log", "clean", "--all"}, 1,
                   "connections are still there: after a delete, a clean does nothing until zorvd "
                   "is restarted; without one, the daemon's log says why");
  EXPECT_EQ(sql("SELECT id FROM conn_server_log"), (Words{"1", "4"}));
  done({"client-log", "clean", "--all"});
  EXPECT_EQ(done({"client-log", "list", "-j"}), "");
  harness::insert_rows("conn_client_log", 7, "username", "'u'", 5);
  expect_complaint({"client-log", "delete", "6", "7"}, 1,
                   "all connections are gone, not only what was named: after a clean, a delete "
                   "empties the table until zorvd is restarted");
  done({"event", "add"});
  EXPECT_EQ(done({"event", "list", "-n", "0"}), "") << "taken and not kept";
}

TEST_F(WithDaemon, WhatTheDatabaseRefusedIsNotTakenForDone) {
  done({"server-log", "add"});
  done({"block", "fail", "counted"});
  for (const std::string table : {"conn_server_log", "conn_client_log", "privilege_user_block"}) {
    for (const std::string change : {"INSERT", "UPDATE", "DELETE"}) {
      sql("CREATE TRIGGER no_" + table + change + " BEFORE " + change + " ON " + table +
          " BEGIN SELECT RAISE(FAIL, 'refused'); END");
    }
  }
  for (const char* words :
       {"server-log add", "client-log add", "block fail new", "block fail counted"}) {
    expect_complaint(split(words), 1, "the daemon kept nothing, its log says why");
  }
  expect_complaint({"block", "remove", "counted"}, 1,
                   "cannot remove the user: counted is still there, the daemon's log says why");
  expect_complaint({"block", "clean", "--all"}, 1,
                   "users are still there, the daemon's log says why");
  sql("DROP TABLE privilege_user_block");
  for (const char* words : {"block fail u", "block remove u", "block list"}) {
    expect_complaint(split(words), 1, "the daemon could not read its table, its log says why");
  }
}

TEST_F(WithDaemon, SessionsExpireAndAreLostAfterTheSecondDelete) {
  done({"session", "add", "--username", "early", "--expire-time", "2h ago"});
  done({"session", "add", "--username", "late", "--expire-time", "+2h"});
  done({"session", "add"});
  const auto table = lines_of(done({"session", "list", "-q"}));
  ASSERT_EQ(table.size(), 3U);
  EXPECT_TRUE(table[0].ends_with("-")) << table[0];
  EXPECT_TRUE(table[1].ends_with("valid")) << table[1];
  EXPECT_TRUE(table[2].ends_with("expired")) << table[2];
  done({"session", "delete", "1"});
  EXPECT_EQ(zorvctl({"session", "delete", "2"}).status, 1);
  for (const char* verb : {"list", "add", "delete 2", "clean --all"}) {
    expect_complaint(split("session "s + verb), 1,
                     "the daemon could not read its table, its log says why");
  }
}

TEST_F(WithDaemon, OutputThatCannotBeWrittenIsSaidOnce) {
  const std::pair<const char*, const char*> cases[] = {
      {"server-log list > /dev/full", ": No space left on device"},
      {"uuid new > /dev/full", ": No space left on device"},
      {"uuid new -n 9999 > /dev/full", ""},
      {"--help > /dev/full", ": No space left on device"},
  };
  for (const auto& [words, reason] : cases) {
    const Outcome outcome =
        harness::run({"/bin/sh", "-c", harness::program("zorvctl") + " " + words});
    EXPECT_EQ(outcome.status, 1) << words;
    EXPECT_TRUE(outcome.err.starts_with("zorvctl: cannot write the output"s + reason)) << words;
    EXPECT_EQ(lines_of(outcome.err).size(), 1U) << outcome.err;
  }
  const auto uuids = lines_of(done({"uuid", "new", "-n", "020"}));
  EXPECT_EQ(std::set<std::string>(uuids.begin(), uuids.end()).size(), 20U);
}

TEST_F(WithDaemon, BlockListsUsersWhoseStateIsUnknownAndThePolicy) {
  done({"block", "fail", "bob"});
  const Outcome list = zorvctl({"block", "list", "-q"});
  EXPECT_EQ(list.status, 0);
  EXPECT_TRUE(list.out.ends_with("  -  unknown  -\n")) << list.out;
  EXPECT_NE(list.err.find("vpn_block.conf"), std::string::npos) << list.err;
  EXPECT_EQ(zorvctl({"block", "policy"}).status, 1);
  EXPECT_EQ(done({"block", "check", "bob"}), "bob: not blocked\n");
  done({"block", "clean", "--all"});
  EXPECT_TRUE(sql("SELECT * FROM privilege_user_block").empty());
  const harness::PlatformDaemon platform;
  harness::write_file("/etc/config/vpn_block.conf",
                      R"({"global": {"enable": true, "limit": 3, "time": 1.5}})");
  EXPECT_EQ(done({"block", "policy", "-j"}), "{\"enable\": true, \"limit\": 3, \"time\": 1.5}\n");
  EXPECT_EQ(done({"block", "policy"}),
            "policy      on\nlimit       3 failed logins\nblock time  1 min 30 s (1.5 min)\n");
}

}  // namespace
