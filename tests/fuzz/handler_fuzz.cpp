// The daemon's methods with any payload, over a real store and the real bus.
//
// Input: requests, each a byte that chooses the method, two bytes (low first) with the length of
// the payload, and the payload. One choice more: what the policy service answers from then on.
#include <fcntl.h>
#include <unistd.h>

#include <cassert>
#include <filesystem>
#include <thread>

#include "detached_spawn.h"
#include "logger.h"
#include "rooted.h"
#include "zorv_api_db.h"
#include "zorv_calls.h"
#include "zorvd_db.h"
#include "zorvd_handler.h"
#include "zorvd_tables.h"

namespace {

std::string policy;
sqlite3* side_connection = nullptr;

// Runs for each connection that is opened: a failed statement would end these tables for good.
int make_temporary_tables(sqlite3* db, char** /*error*/, const sqlite3_api_routines* /*api*/) {
  for (const zorv::TableSchema* schema : zorv::kTables) {
    if (schema->storage == zorv::Storage::temporary) {
      const std::string text = store::table_of(*schema).__db_create_str.c_str();
      sqlite3_exec(db, text.c_str(), nullptr, nullptr, nullptr);
    }
  }
  return SQLITE_OK;
}

// Bounds what the inputs leave behind, and looks whether one of them was more than a value.
void sweep() {
  const auto expect_as_made = [](void*, int, char** texts, char**) {
    static const std::string expected = texts[0];
    assert(texts[0] == expected);
    return 0;
  };
  sqlite3_exec(side_connection,
               "SELECT group_concat(name || sql) FROM sqlite_master;"
               "DELETE FROM conn_server_log; DELETE FROM conn_client_log;"
               "DELETE FROM privilege_user_block;",
               expect_as_made, nullptr, nullptr);
  zorv_api::Rows rows;  // a column that does not exist costs the connection its tables
  zorv_api::query(zorv::kServerList, {0, 0, 0, 0, "none", "none"}, rows);
  zorv_api::query(zorv::kDeviceInfo, {0, 0, 0, 0, "none", "none"}, rows);
}

void answer_policy(const char* /*method*/, kx_io* io, int /*fd*/) {
  kx_io_realloc(io, 0);
  kx_io_write(io, policy.data(), policy.size());
  kx_reply(io);
}

void check_call(const char* method, const std::string& payload) {
  const kx_io_owner io = zorv_api::new_buffer();
  const int status = zorv_api::call(io, method, payload.data(), payload.size());
  assert(status == KX_SUCCESS || status == KX_IS_REJECT);
  for (const zorv::TableSchema* table : zorv::kTables) {
    if (status == KX_SUCCESS && method == std::string_view(table->methods.query)) {
      size_t length = 0;
      record_uint64 head[3] = {};
      kx_io_read(io.get(), &length);
      kx_io_copy(io.get(), 0, head, sizeof head);
      assert(head[0] <= 100000 && length == sizeof head + head[0] * table->record_size);
      assert(head[2] == 0);  // no address leaves the process
    }
  }
}

}  // namespace

// In place of the library's, which would start the notification tool.
void os::spawn_detached(const char* /*file*/, const char* const* /*arguments*/) {}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  assert(!os::root().empty());  // script/fuzz makes one
  std::filesystem::create_directories(os::rooted("/etc/config/zorv"));
  std::filesystem::create_directories(os::rooted("/var/lock"));
  __cur_type__ = kLogToStdout;  // fully formatted, and sent nowhere
  dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
  sqlite3_auto_extension(reinterpret_cast<void (*)()>(make_temporary_tables));
  store::open_tables();
  sqlite3_open(os::rooted(store::kDatabaseFile).c_str(), &side_connection);
  for (kx_server* server : {kx_create("vpncaas", 4, 1, answer_policy),
                            kx_create(kZorvdAddress, 4, 1, zorvd_method_handler)}) {
    std::thread(kx_start, server).detach();
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (static unsigned inputs = 0; inputs++ % 512 == 0) {
    sweep();
  }
  policy = R"({"data":{"global":{"enable":true,"limit":2,"time":1}},"error":0})";
  while (size >= 3) {
    const size_t choice = data[0] % (methods().size() + 1);
    const size_t length = std::min<size_t>(data[1] + data[2] * 256U, size - 3);
    const std::string payload(reinterpret_cast<const char*>(data) + 3, length);
    data += 3 + length;
    size -= 3 + length;
    if (choice < methods().size()) {
      check_call(methods()[choice].name, payload);
    } else {
      policy = payload;
    }
  }
  return 0;
}
