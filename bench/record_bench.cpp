// The insert of a server-log record, from the caller's record to the caller's status, with its
// notification; and the check whether a user is blocked, for a user without a failed login, which
// looks at all rows.
//
// The floor is a raw exchange with a server that writes the lines and runs the statements which the
// daemon logged for such a call. For an insert it starts the same tool, too, and before the next
// insert the tool has ended, so that tools do not pile up. For a check it asks a second server for
// the policy in the same way and compares the names where they lie; what the statements alone cost
// in this process is shown beside it.
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <filesystem>

#include "dbus_peer.h"
#include "descriptor.h"
#include "floor.h"
#include "harness/daemon.h"
#include "harness/test_root.h"
#include "measure.h"
#include "processes.h"
#include "raw_bus.h"
#include "zorv_api_db.h"

namespace bench {
namespace {

constexpr const char* kPolicy = R"({"global": {"enable": true, "limit": 5, "time": 30}})";
char absent_user[] = "nobody";

// The seconds of the insert; the tool that it started has ended on return.
double until_told(const std::function<void()>& insert) {
  const double seconds = seconds_of(insert);
  await_orphan();
  return seconds;
}

// A system log of our own, for the peer that writes its record there.
os::Descriptor make_syslog(const std::string& path) {
  std::filesystem::remove(path);
  sockaddr_un address{AF_UNIX, ""};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  os::Descriptor syslog(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  require(bind(syslog.get(), generic, sizeof address) == 0, "no syslog socket");
  return syslog;
}

// Returns when the line is in the log and the program has ended.
void log_with_logger(const std::string& path, const os::Descriptor& syslog) {
  run_program({"/usr/bin/logger", "-u", path, "-t", "openvpn",
               ("alice logged out: source 10.99.0.2, client 10.8.0.2, uptime 600, sent 1024, "
                "received 2048, linux 6.1, OpenVPN 2.6.3, eth0")});
  char line[1024];
  require(recv(syslog.get(), line, sizeof line, MSG_DONTWAIT) > 0, "logger wrote nothing");
}

void measure_insert_at(Report& report, int rows) {
  fill_server_log(rows);
  const harness::Daemon daemon;
  const Recording recording = record(insert_sample);
  await_orphan();
  const db_conn_server_log sample = sample_record();
  const std::string_view body(reinterpret_cast<const char*>(&sample), sizeof sample);
  const std::string copies[] = {copy_database("floor.db"), copy_database("peer.db")};
  const RawServer floor([&](char*, size_t) {
    static const Connection db = open_database(copies[0]);
    write_lines(recording.daemon_lines);
    execute(db, recording.statements);
    notify_raw();
    return size_t{0};
  });
  const auto insert_raw = [&] {
    write_lines(recording.own_lines);
    floor.call(body);
  };
  // The process behind D-Bus inserts the record with the same statements, and does nothing else.
  const DbusPeer dbus([&](std::string_view) {
    static const Connection db = open_database(copies[1]);
    execute(db, recording.statements);
    return std::string();
  });
  const std::string log_path = harness::test_root() + "/syslog";
  const os::Descriptor syslog = make_syslog(log_path);
  report.compare(fmt::format("insert at {} rows", rows), 15, 20, {.of_floor = 1.3},
                 {{"ours", [] { return until_told(insert_sample); }},
                  {"floor", [&] { return until_told(insert_raw); }},
                  {"logger", [&] { log_with_logger(log_path, syslog); }},
                  {"D-Bus", [&] { DbusPeer::call(dbus.connect(), body); }}});
}

void check_ours() {
  require(check_privilege_user_block(absent_user) == 0, "a user without failed logins is blocked");
}

void compare_all(const Connection& db, const std::vector<std::string>& statements) {
  step_through(db, statements.at(0));
  step_through(db, statements.at(1), [](sqlite3_stmt* row) {
    const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(row, 1));
    require(strcmp(name, absent_user) != 0, "the absent user is there");
  });
  step_through(db, statements.at(2));
}

void measure_check_of(Report& report, int rows) {
  fill_blocks(rows);
  const harness::PlatformDaemon platform;
  const harness::Daemon daemon;
  const Recording recording = record(check_ours);
  const RawServer policy([](char*, size_t length) { return length; });
  Connection db(nullptr, sqlite3_close);  // of each process's own
  const auto run_statements = [&] {
    if (db == nullptr) {
      db = open_database();
    }
    compare_all(db, recording.statements);
  };
  const RawServer floor([&](char*, size_t) {
    policy.call(kPolicy);
    write_lines(recording.daemon_lines);
    run_statements();
    return size_t{1};
  });
  const auto check_raw = [&] {
    write_lines(recording.own_lines);
    floor.call(absent_user);
  };
  report.compare(
      fmt::format("block check, {} rows", rows), 15, rows >= 100000 ? 4 : 100, {.of_floor = 2},
      {{"ours", check_ours}, {"floor", check_raw}, {"statements alone", run_statements}});
}

}  // namespace

void measure_insert(Report& report) {
  harness::install_notify();
  for (const int rows : {0, 10000, 101000}) {
    measure_insert_at(report, rows);
  }
}

void measure_block_check(Report& report) {
  harness::write_file("/etc/config/vpn_block.conf", kPolicy);
  for (const int rows : {10, 1000, 100000}) {
    measure_check_of(report, rows);
  }
}

}  // namespace bench
