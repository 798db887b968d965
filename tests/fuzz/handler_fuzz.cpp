// The daemon's methods with any payload, over a real store and the real bus.
//
// Input: requests, each a byte that chooses the method, two bytes (low first) with the length of
// the payload, and the payload. Two choices more: a method that nobody knows, and what the policy
// service answers from then on.
//
// The store lives as long as the process, as it does in the daemon, with two differences: every
// connection gets its temporary tables anew, or the first failed statement would end the sessions
// and devices for good, and the tables are emptied now and then.
#include <algorithm>
#include <cstring>
#include <thread>

#include "rooted.h"
#include "stand_ins.h"
#include "zorv_api_db.h"
#include "zorv_calls.h"
#include "zorvd_db.h"
#include "zorvd_handler.h"
#include "zorvd_tables.h"

namespace {

using fuzz::require;

constexpr unsigned kInputsPerSweep = 512;
constexpr size_t kRecordSpace = 8 * 1024;  // of a request's buffer that is zero behind the payload
constexpr const char* kAnyPolicy =
    R"({"data":{"global":{"enable":true,"limit":2,"time":1}},"error":0})";

std::string policy;

// Runs for each connection that is opened.
int make_temporary_tables(sqlite3* db, char** /*error*/, const sqlite3_api_routines* /*api*/) {
  for (const zorv::TableSchema* schema : zorv::kTables) {
    if (schema->storage == zorv::Storage::temporary) {
      const std::string text = store::table_of(*schema).__db_create_str.c_str();
      sqlite3_exec(db, text.c_str(), nullptr, nullptr, nullptr);
    }
  }
  return SQLITE_OK;
}

sqlite3* side_connection() {
  static sqlite3* const db = [] {
    sqlite3* opened = nullptr;
    sqlite3_open(os::rooted(store::kDatabaseFile).c_str(), &opened);
    return opened;
  }();
  return db;
}

std::string schema_text() {
  std::string text;
  sqlite3_exec(
      side_connection(), "SELECT group_concat(name || sql) FROM sqlite_master ORDER BY name;",
      [](void* user, int, char** texts, char**) {
        *static_cast<std::string*>(user) = texts[0] != nullptr ? texts[0] : "";
        return 0;
      },
      &text, nullptr);
  return text;
}

// Before the daemon's own callback: what the bus promises of a request's buffer.
void check_and_handle(const char* method, kx_io* io, int fd) {
  size_t length = 0;
  const auto* payload = static_cast<const char*>(kx_io_read(io, &length));
  const size_t space = std::max(kRecordSpace, length + 1);
  require(payload == nullptr ||
              std::all_of(payload + length, payload + space, [](char byte) { return byte == 0; }),
          "zeros behind the payload");
  zorvd_method_handler(method, io, fd);
}

void answer_policy(const char* /*method*/, kx_io* io, int /*fd*/) {
  kx_io_realloc(io, 0);
  kx_io_write(io, policy.data(), policy.size());
  kx_reply(io);
}

void serve(const char* address, kx_method_callback callback) {
  kx_server* const server = kx_create(address, 4, 1, callback);
  require(server != nullptr, "a server");
  std::thread([server] { kx_start(server); }).detach();
}

void check_page(const zorv::TableSchema& table, kx_io* io) {
  size_t length = 0;
  record_uint64 head[3];
  kx_io_read(io, &length);
  require(kx_io_copy(io, 0, head, sizeof head) == KX_SUCCESS, "a head");
  const size_t records = length - sizeof head;
  require(records % table.record_size == 0 && records / table.record_size <= 100000,
          "whole records within the limit");
  require(head[0] == records / table.record_size, "as many records as announced");
  require(head[2] == 0, "no address leaves the process");
}

void check_call(const char* method, bool is_known, const std::string& payload) {
  const kx_io_owner io = zorv_api::new_buffer();
  const int status = zorv_api::call(io, method, payload.data(), payload.size());
  require(is_known ? status == KX_SUCCESS || status == KX_IS_REJECT : status == KX_IS_INVALID,
          "done or refused, or nobody's method");
  for (const zorv::TableSchema* table : zorv::kTables) {
    if (status == KX_SUCCESS && method == std::string_view(table->methods.query)) {
      check_page(*table, io.get());
    }
  }
}

// Bounds what the inputs leave behind, and looks whether one of them was more than a value.
void sweep() {
  static const std::string expected = schema_text();
  require(schema_text() == expected && !expected.empty(), "the tables are as they were made");
  sqlite3_exec(side_connection(),
               "DELETE FROM conn_server_log; DELETE FROM conn_client_log;"
               "DELETE FROM privilege_user_block;",
               nullptr, nullptr, nullptr);
  // A column that does not exist: the statement fails, and the next connection's table is empty.
  const db_query_cond cond{0, 0, 0, 0, "none", "none"};
  zorv_api::Rows rows;
  zorv_api::query(zorv::kServerList, cond, rows);
  zorv_api::query(zorv::kDeviceInfo, cond, rows);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::prepare();
  sqlite3_auto_extension(reinterpret_cast<void (*)()>(make_temporary_tables));
  store::open_tables();
  serve("vpncaas", answer_policy);
  serve(kZorvdAddress, check_and_handle);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static unsigned inputs = 0;
  if (inputs++ % kInputsPerSweep == 0) {
    sweep();
  }
  policy = kAnyPolicy;
  while (size >= 3) {
    const size_t choice = data[0] % (methods().size() + 2);
    const size_t length = std::min<size_t>(data[1] + data[2] * 256U, size - 3);
    const std::string payload(reinterpret_cast<const char*>(data) + 3, length);
    data += 3 + length;
    size -= 3 + length;
    if (choice < methods().size()) {
      check_call(methods()[choice].name, true, payload);
    } else if (choice == methods().size()) {
      check_call("no such method", false, payload);
    } else {
      policy = payload;
    }
  }
  return 0;
}
