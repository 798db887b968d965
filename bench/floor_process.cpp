// The floor of a daemon's life: floor_process DATABASE NAME
//
// Opens the database five times, sets each connection up as the store does, makes its tables,
// answers raw exchanges at the abstract address NAME, and closes the connections on SIGTERM.
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <iterator>

namespace {

volatile sig_atomic_t stopping = 0;

constexpr const char* kPragmas[] = {
    "PRAGMA page_size = 2048;",           "PRAGMA synchronous = ON;",
    "PRAGMA auto_vacuum = FULL;",         "PRAGMA journal_mode = OFF;",
    "PRAGMA default_cache_size = 10000;", "PRAGMA cache_size = 10000;",
};

constexpr const char* kTables[] = {
    "CREATE  TABLE IF NOT EXISTS conn_server_log (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE);",
    "CREATE  TABLE IF NOT EXISTS conn_client_log (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE);",
    "CREATE TEMPORARY TABLE IF NOT EXISTS server_list (id INTEGER PRIMARY KEY AUTOINCREMENT "
    "UNIQUE);",
    "CREATE TEMPORARY TABLE IF NOT EXISTS device_info (id INTEGER PRIMARY KEY AUTOINCREMENT "
    "UNIQUE, mac TEXT); CREATE UNIQUE INDEX idx_device_info_mac ON device_info (mac);",
    "CREATE  TABLE IF NOT EXISTS privilege_user_block (id INTEGER PRIMARY KEY AUTOINCREMENT "
    "UNIQUE);",
};

bool execute(sqlite3* db, const char* statement) {
  return sqlite3_exec(db, statement, nullptr, nullptr, nullptr) == SQLITE_OK;
}

int listen_at(const char* name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const size_t length = strnlen(name, sizeof address.sun_path - 1);
  memcpy(address.sun_path + 1, name, length);
  const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
      listen(listener, 128) != 0) {
    return -1;
  }
  return listener;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    return 2;
  }
  // The signal is let in only where the process waits, so none comes between check and waiting.
  sigset_t none;
  sigset_t term;
  sigemptyset(&none);
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  sigprocmask(SIG_BLOCK, &term, nullptr);
  struct sigaction action {};
  action.sa_handler = [](int) { stopping = 1; };
  sigaction(SIGTERM, &action, nullptr);
  sqlite3* connections[std::size(kTables)] = {};
  for (size_t i = 0; i < std::size(kTables); ++i) {
    if (sqlite3_open(argv[1], &connections[i]) != SQLITE_OK) {
      return 1;
    }
    for (const char* pragma : kPragmas) {
      execute(connections[i], pragma);
    }
    if (!execute(connections[i], kTables[i])) {
      return 1;
    }
  }
  const int listener = listen_at(argv[2]);
  if (listener < 0) {
    return 1;
  }
  pollfd waiting{listener, POLLIN, 0};
  while (ppoll(&waiting, 1, nullptr, &none) > 0 && stopping == 0) {
    char packet[64];
    const int connection = accept(listener, nullptr, nullptr);
    const ssize_t received = connection >= 0 ? recv(connection, packet, sizeof packet, 0) : -1;
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
