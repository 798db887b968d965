// The check whether a user is blocked, for a user without a failed login: all rows are looked at.
//
// The floor is a raw exchange with a server that asks a second one for the policy in the same way,
// writes the lines that the daemon wrote, and steps through the same three statements, comparing
// the names where they lie. What the statements alone cost in this process is shown beside it.
#include <cstring>
#include <stdexcept>

#include "child.h"
#include "families.h"
#include "floor.h"
#include "harness/daemon.h"
#include "harness/test_root.h"
#include "raw_bus.h"
#include "recording.h"
#include "server_log.h"
#include "zorv_api_db.h"

namespace bench {
namespace {

constexpr const char* kPolicy = R"({"global": {"enable": true, "limit": 5, "time": 30}})";
char absent_user[] = "nobody";

void check_ours() {
  if (check_privilege_user_block(absent_user) != 0) {
    throw std::runtime_error("a user without failed logins is blocked");
  }
}

void compare_all(sqlite3* db, const std::vector<std::string>& statements) {
  step_through(db, statements.at(0));
  Steps rows(db, statements.at(1));
  while (rows.next()) {
    const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(rows.get(), 1));
    if (strcmp(name, absent_user) == 0) {
      throw std::runtime_error("the absent user is there");
    }
  }
  step_through(db, statements.at(2));
}

void serve_floor(const std::string& name, const std::string& policy, const Recording& recording,
                 const Child::Ready& ready) {
  const Connection db = open_database(harness::kDatabase);
  serve_raw(name, ready, [&](char*, size_t) {
    alignas(8) static char packet[kRawPacket];
    raw_call(policy, packet, kRawHead + strlen(kPolicy));
    for (const std::string& line : recording.daemon_lines) {
      write_line_raw(line);
    }
    compare_all(db.get(), recording.statements);
    return kRawHead + 1;
  });
}

void check_raw(const std::string& name, const Recording& recording) {
  alignas(8) static char packet[kRawPacket];
  for (const std::string& line : recording.own_lines) {
    write_line_raw(line);
  }
  raw_call(name, packet, kRawHead + strlen(absent_user));
}

void measure(Report& report, int rows) {
  fill_blocks(rows);
  const harness::PlatformDaemon platform;
  const harness::Daemon daemon;
  const Recording recording = record(check_ours);
  const std::string policy = harness::test_root() + "/policy";
  const std::string name = harness::test_root() + "/check";
  const Child policy_floor([&](const Child::Ready& ready) {
    serve_raw(policy, ready, [](char*, size_t length) { return length; });
  });
  const Child floor(
      [&](const Child::Ready& ready) { serve_floor(name, policy, recording, ready); });
  const Connection db = open_database(harness::kDatabase);
  const int batch = rows >= 100000 ? 4 : 100;
  report.compare("block check, " + std::to_string(rows) + " rows", {15, batch}, {.of_floor = 2},
                 {{Role::ours, "check_privilege_user_block", timed(check_ours)},
                  {Role::floor, "two raw exchanges, same lines and statements",
                   timed([&name, &recording] { check_raw(name, recording); })},
                  {Role::part, "statements alone",
                   timed([&db, &recording] { compare_all(db.get(), recording.statements); })}});
}

}  // namespace

void measure_block_check(Report& report) {
  harness::write_file("/etc/config/vpn_block.conf", kPolicy);
  for (const int rows : {10, 1000, 100000}) {
    measure(report, rows);
  }
}

}  // namespace bench
