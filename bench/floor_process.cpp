// The floor of a daemon's life: floor_process DATABASE NAME
//
// Opens the database five times, sets each connection up as the store does, makes its tables,
// answers raw exchanges at the abstract address NAME, and closes the connections on SIGTERM. It
// takes nothing but the C library and SQLite.
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <iterator>

namespace {

constexpr const char* kSetup =
    "PRAGMA page_size = 2048; PRAGMA synchronous = ON; PRAGMA auto_vacuum = FULL; "
    "PRAGMA journal_mode = OFF; PRAGMA default_cache_size = 10000; PRAGMA cache_size = 10000;";

// The tables that lie in the file are there already.
constexpr const char* kTables[] = {
    "CREATE TABLE IF NOT EXISTS conn_server_log (id INTEGER PRIMARY KEY);",
    "CREATE TABLE IF NOT EXISTS conn_client_log (id INTEGER PRIMARY KEY);",
    "CREATE TEMPORARY TABLE server_list (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE);",
    ("CREATE TEMPORARY TABLE device_info (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, mac TEXT); "
     "CREATE UNIQUE INDEX idx_device_info_mac ON device_info (mac);"),
    "CREATE TABLE IF NOT EXISTS privilege_user_block (id INTEGER PRIMARY KEY);",
};

int listen_at(const char* name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const size_t length = strnlen(name, sizeof address.sun_path - 1);
  memcpy(address.sun_path + 1, name, length);
  const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
  const bool bound = bind(listener, reinterpret_cast<const sockaddr*>(&address), size) == 0;
  return bound && listen(listener, 128) == 0 ? listener : -1;
}

}  // namespace

int main(int argc, char** argv) {
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  sigprocmask(SIG_BLOCK, &term, nullptr);
  sqlite3* connections[std::size(kTables)] = {};
  for (size_t i = 0; i < std::size(kTables); ++i) {
    if (argc != 3 || sqlite3_open(argv[1], &connections[i]) != SQLITE_OK) {
      return 1;
    }
    sqlite3_exec(connections[i], kSetup, nullptr, nullptr, nullptr);
    sqlite3_exec(connections[i], kTables[i], nullptr, nullptr, nullptr);
  }
  pollfd waiting[] = {{listen_at(argv[2]), POLLIN, 0},
                      {signalfd(-1, &term, SFD_CLOEXEC), POLLIN, 0}};
  while (poll(waiting, 2, -1) > 0 && waiting[1].revents == 0) {
    char packet[64];
    const int connection = accept(waiting[0].fd, nullptr, nullptr);
    const ssize_t received = recv(connection, packet, sizeof packet, 0);
    if (received > 0) {
      send(connection, packet, static_cast<size_t>(received), MSG_NOSIGNAL);
    }
    close(connection);
  }
  for (sqlite3* db : connections) {
    sqlite3_close(db);
  }
  return 0;
}
