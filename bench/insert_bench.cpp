// The insert of a server-log record, from the caller's record to the caller's status, with its
// notification.
//
// The floor is a raw exchange with a server that writes the lines and runs the statements which the
// daemon logged for such an insert, and starts the same tool. Before the next insert the tool has
// ended, so that tools do not pile up.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <stdexcept>

#include "child.h"
#include "dbus_peer.h"
#include "families.h"
#include "floor.h"
#include "harness/daemon.h"
#include "harness/test_root.h"
#include "kxbus.h"
#include "raw_bus.h"
#include "recording.h"
#include "server_log.h"
#include "zorv_api_db.h"

namespace bench {
namespace {

constexpr const char* kLogger = "/usr/bin/logger";

void insert_ours() {
  db_conn_server_log record = sample_record();
  if (add_conn_server_log(&record) != KX_SUCCESS) {
    throw std::runtime_error("the daemon did not insert");
  }
}

void execute_all(sqlite3* db, const std::vector<std::string>& statements) {
  for (const std::string& statement : statements) {
    execute(db, statement);
  }
}

void serve_floor(const std::string& name, const Recording& recording, const std::string& database,
                 const Child::Ready& ready) {
  const Connection db = open_database(database);
  const std::string tool = harness::test_root() + "/usr/local/sbin/notify";
  const char* const arguments[] = {
      "/usr/local/sbin/notify",
      "send",
      "-A",
      "A238",
      "-C",
      "C001",
      "-M",
      "0017",
      "-l",
      "info",
      "-t",
      "3",
      "[{0}] Connection log information. Date: {1}, Uptime: {2}, Username: {3}, Source: "
      "{4}, Client IP: {5}, Transmission rate: {6}, Receiving rate: {7}, Protocol: {8}, Connection "
      "status: {9}.",
      "ZORV Service",
      "2027/01/15 08:00:00",
      "10:00",
      "alice",
      "10.99.0.2",
      "10.8.0.2",
      "1.00 KB",
      "2.00 KB",
      "OpenVPN",
      "Logout",
      nullptr};
  serve_raw(name, ready, [&](char*, size_t) {
    for (const std::string& line : recording.daemon_lines) {
      write_line_raw(line);
    }
    execute_all(db.get(), recording.statements);
    spawn_raw(tool.c_str(), arguments);
    return kRawHead;
  });
}

void insert_raw(const std::string& name, const Recording& recording) {
  static const db_conn_server_log record = sample_record();
  alignas(8) static char packet[kRawPacket];
  memcpy(packet + kRawHead, &record, sizeof record);
  for (const std::string& line : recording.own_lines) {
    write_line_raw(line);
  }
  raw_call(name, packet, kRawHead + sizeof record);
}

// A system log of our own, for the peer that writes its record there.
class Syslog {
 public:
  Syslog() : path_(harness::test_root() + "/syslog") {
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path_.c_str());
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("no syslog socket");
    }
  }
  ~Syslog() { close(socket_); }
  Syslog(const Syslog&) = delete;
  Syslog& operator=(const Syslog&) = delete;

  // The seconds until the line is in the log and the program has ended.
  double log_with_logger() const {
    const char* const arguments[] = {
        kLogger,
        "-u",
        path_.c_str(),
        "-t",
        "openvpn",
        "alice logged out: source 10.99.0.2, client 10.8.0.2, uptime "
        "600, sent 1024, received 2048, linux 6.1, OpenVPN 2.6.3, eth0",
        nullptr};
    return seconds_of([&] {
      const pid_t child = vfork();
      if (child == 0) {
        execv(kLogger, const_cast<char* const*>(arguments));
        _exit(127);
      }
      int status = 0;
      waitpid(child, &status, 0);
      char line[1024];
      if (status != 0 || recv(socket_, line, sizeof line, MSG_DONTWAIT) <= 0) {
        throw std::runtime_error("logger wrote nothing");
      }
    });
  }

 private:
  std::string path_;
  int socket_ = -1;
};

// The process behind D-Bus inserts the record with the same statements, and does nothing else.
std::unique_ptr<DbusPeer> start_dbus(const std::vector<std::string>& statements) {
  return std::make_unique<DbusPeer>([&statements] {
    auto db = std::make_shared<Connection>(open_database(copy_database()));
    return [db, &statements](const void*, size_t) {
      execute_all(db->get(), statements);
      return std::string();
    };
  });
}

double insert_over_dbus(const DbusPeer& dbus) {
  static const db_conn_server_log record = sample_record();
  return seconds_of([&dbus] {
    const Bus bus = dbus.connect();
    DbusPeer::call(bus.get(), &record, sizeof record);
  });
}

void measure(Report& report, int rows) {
  fill_server_log(rows);
  const harness::Daemon daemon;
  const Recording recording = record(insert_ours);
  await_orphan();
  const std::string name = harness::test_root() + "/insert";
  const std::string database = copy_database();
  const Child floor(
      [&](const Child::Ready& ready) { serve_floor(name, recording, database, ready); });
  std::vector<Contender> contenders{
      {Role::ours, "add_conn_server_log",
       [] {
         const double seconds = seconds_of(insert_ours);
         await_orphan();
         return seconds;
       }},
      {Role::floor, "raw exchange, same lines, statements and tool", [&] {
         const double seconds = seconds_of([&] { insert_raw(name, recording); });
         await_orphan();
         return seconds;
       }}};
  std::unique_ptr<Syslog> syslog;
  if (access(kLogger, X_OK) == 0) {
    syslog = std::make_unique<Syslog>();
    contenders.push_back({Role::peer, "logger", [&syslog] { return syslog->log_with_logger(); }});
  } else {
    report.miss("no logger");
  }
  std::unique_ptr<DbusPeer> dbus;
  try {
    dbus = start_dbus(recording.statements);
    contenders.push_back({Role::peer, "D-Bus", [&dbus] { return insert_over_dbus(*dbus); }});
  } catch (const std::exception& failure) {
    report.miss(failure.what());
  }
  report.compare("insert at " + std::to_string(rows) + " rows", {15, 20}, {.of_floor = 1.3},
                 std::move(contenders));
}

}  // namespace

void measure_insert(Report& report) {
  const OneProcessor together;
  harness::install_notify();
  for (const int rows : {0, 10000, 101000}) {
    measure(report, rows);
  }
}

}  // namespace bench
