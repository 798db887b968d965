// The daemon's 24 methods with any payload, over a real store.
//
// Input: requests, each a byte that chooses the method, two bytes (low first) with the length of
// the payload, and the payload. Two choices more: a method that nobody knows, and what the policy
// service answers from then on. Each request goes through the dispatcher in a buffer made as the
// bus makes it, and its answer is read from the caller's end of the socket.
//
// The store lives as long as the process, as it does in the daemon, with two differences: every
// connection gets its temporary tables anew, or the first failed statement would end the sessions
// and devices for good, and the tables are emptied now and then.
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <thread>

#include "descriptor.h"
#include "kx_packet.h"
#include "kxbus.h"
#include "rooted.h"
#include "stand_ins.h"
#include "zorv_records.h"
#include "zorvd_db_conn_client_handler.h"
#include "zorvd_db_device_info_handler.h"
#include "zorvd_db_handler.h"
#include "zorvd_db_helper.h"
#include "zorvd_db_list_handler.h"
#include "zorvd_db_privilege_user_block_handler.h"
#include "zorvd_handler.h"

namespace {

using fuzz::require;

constexpr unsigned kInputsPerSweep = 512;
constexpr size_t kRecordSpace = 8 * 1024;  // of a request's buffer that is zero behind the payload
constexpr const char* kAddress = "@/var/run/zorvd.sock";
constexpr size_t kFlagsOffset = 8;
constexpr const char* kAnyPolicy =
    R"({"data":{"global":{"enable":true,"limit":2,"time":1}},"error":0})";

struct Choice {
  const char* method;
  size_t record_size;  // of a query's rows; 0 for other methods
};
constexpr Choice kChoices[] = {
    {"db_conn_insert", 0},
    {"db_conn_server_log_query", sizeof(db_conn_server_log)},
    {"db_conn_server_log_clean", 0},
    {"db_conn_server_log_del", 0},
    {"db_conn_client_log_insert", 0},
    {"db_conn_client_log_query", sizeof(db_conn_client_log_data)},
    {"db_conn_client_log_clean", 0},
    {"db_conn_client_log_del", 0},
    {"db_event_insert", 0},
    {"db_event_query", sizeof(db_event_data)},
    {"db_server_list_insert", 0},
    {"db_server_list_query", sizeof(db_server_list_data)},
    {"db_server_list_del", 0},
    {"db_server_list_clean", 0},
    {"db_device_info_insert", 0},
    {"db_device_info_query", sizeof(db_device_info_data)},
    {"db_device_info_del", 0},
    {"db_device_info_clean", 0},
    {"zorv_mobile_gen_zorv_uuid", 0},
    {"db_privilege_user_block_insert", 0},
    {"db_privilege_user_block_query", sizeof(db_privilege_user_block_data)},
    {"db_privilege_user_block_del", 0},
    {"db_privilege_user_block_clean", 0},
    {"db_privilege_user_block_check", 0},
    {"no such method", 0},
};
constexpr const Choice& kUnknown = kChoices[std::size(kChoices) - 1];
constexpr size_t kPolicyChoice = std::size(kChoices);

// Runs for each connection that is opened.
int make_temporary_tables(sqlite3* db, char** /*error*/, const sqlite3_api_routines* /*api*/) {
  return sqlite3_exec(db,
                      "CREATE TEMPORARY TABLE server_list (id INTEGER PRIMARY KEY AUTOINCREMENT "
                      "UNIQUE, uuid TEXT, username TEXT, sid TEXT, device_name TEXT, expire_time "
                      "INTEGER, time INTEGER);"
                      "CREATE TEMPORARY TABLE device_info (id INTEGER PRIMARY KEY AUTOINCREMENT "
                      "UNIQUE, ip TEXT, mac TEXT, hoxsid TEXT, user_id TEXT, dev_name TEXT, "
                      "dev_uuid TEXT, nic TEXT, time INTEGER);"
                      "CREATE UNIQUE INDEX temp.idx_device_info_mac ON device_info (mac);",
                      nullptr, nullptr, nullptr);
}

sqlite3* side_connection() {
  static sqlite3* const db = [] {
    sqlite3* opened = nullptr;
    sqlite3_open(os::rooted(store::kDatabaseFile).c_str(), &opened);
    return opened;
  }();
  return db;
}

std::string schema() {
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

void start_serving() {
  kx_server* const server = kx_create(kAddress, 4, 1, check_and_handle);
  require(server != nullptr, "a server");
  std::thread([server] { kx_start(server); }).detach();
}

struct Answer {
  kxbus::ReplyFrame frame;
  std::string body;  // empty where it came in a memfd
};

// The fuzzer's timer interrupts what waits.
template <class Call>
auto uninterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) {
    result = call();
  }
  return result;
}

// A call as it is on the wire.
Answer call(std::string_view method, const std::string& payload) {
  const std::string name = os::rooted(kAddress + 1);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  const os::Descriptor caller(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  require(uninterrupted([&] {
            return connect(caller.get(), reinterpret_cast<const sockaddr*>(&address), length);
          }) == 0,
          "the server listens");

  kxbus::HeaderBytes header;
  kxbus::encode_request({.method = method, .body_length = payload.size()}, header);
  std::string packet(reinterpret_cast<const char*>(header), sizeof header);
  packet.append(payload).append(method);
  require(send(caller.get(), packet.data(), packet.size(), MSG_NOSIGNAL) ==
              static_cast<ssize_t>(packet.size()),
          "a request can be sent");
  packet.resize(kxbus::kHeaderSize + kxbus::kPacketBody);
  const ssize_t received =
      uninterrupted([&] { return recv(caller.get(), packet.data(), packet.size(), 0); });
  require(received >= static_cast<ssize_t>(kxbus::kHeaderSize), "every caller is answered");
  packet.resize(static_cast<size_t>(received));

  Answer answer;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(packet.data());
  const bool has_memfd = (bytes[kFlagsOffset] & kxbus::kBodyInMemfd) != 0;
  answer.body = packet.substr(kxbus::kHeaderSize);
  require(kxbus::decode_reply({.header = {bytes, kxbus::kHeaderSize},
                               .payload = answer.body,
                               .sent = packet.size(),
                               .descriptors = has_memfd ? 1U : 0U},
                              answer.frame) == KX_SUCCESS,
          "an answer that can be read");
  return answer;
}

void check_query_answer(const Answer& answer, size_t record_size) {
  const size_t records = answer.frame.body_length - kQueryHeaderSize;
  require(answer.frame.body_length >= kQueryHeaderSize && records % record_size == 0,
          "a head and whole records");
  require(records / record_size <= 100000, "a page within the limit");
  if (answer.frame.body_in_memfd) {
    return;
  }
  query_result<char> head{};
  memcpy(&head, answer.body.data(), kQueryHeaderSize);
  require(head.data == nullptr, "no address leaves the process");
  require(head.count == records / record_size, "as many records as announced");
}

void check_call(const Choice& choice, const std::string& payload) {
  const Answer answer = call(choice.method, payload);
  if (&choice == &kUnknown) {
    require(answer.frame.status == KX_IS_INVALID, "nobody's method");
  } else {
    require(answer.frame.status == KX_SUCCESS || answer.frame.status == KX_IS_REJECT,
            "done or refused");
  }
  if (answer.frame.status == KX_SUCCESS && choice.record_size != 0) {
    check_query_answer(answer, choice.record_size);
  }
}

// Bounds what the inputs leave behind, and looks whether one of them was more than a value.
void sweep() {
  static const std::string expected = schema();
  require(schema() == expected && !expected.empty(), "the tables are as they were made");
  sqlite3_exec(side_connection(),
               "DELETE FROM conn_server_log; DELETE FROM conn_client_log;"
               "DELETE FROM privilege_user_block;",
               nullptr, nullptr, nullptr);
  // A column that does not exist: the statement fails, and the next connection's table is empty.
  db_query_cond cond{};
  memcpy(cond.field, "none", sizeof "none");
  memcpy(cond.value, "none", sizeof "none");
  const std::string payload(reinterpret_cast<const char*>(&cond), sizeof cond);
  call("db_server_list_query", payload);
  call("db_device_info_query", payload);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::prepare();
  sqlite3_auto_extension(reinterpret_cast<void (*)()>(make_temporary_tables));
  require(store::create_conn_server_log_db() == 0 && store::create_conn_client_log_db() == 0 &&
              store::create_server_list_db() == 0 && store::create_device_info_db() == 0 &&
              store::create_privilege_user_block_db() == 0,
          "the tables can be made");
  start_serving();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static unsigned inputs = 0;
  if (inputs++ % kInputsPerSweep == 0) {
    sweep();
  }
  std::string policy = kAnyPolicy;
  while (size >= 3) {
    const size_t choice = data[0] % (kPolicyChoice + 1);
    const size_t length = std::min<size_t>(data[1] + data[2] * 256U, size - 3);
    const std::string payload(reinterpret_cast<const char*>(data) + 3, length);
    data += 3 + length;
    size -= 3 + length;
    if (choice == kPolicyChoice) {
      policy = payload;
      continue;
    }
    fuzz::replies.assign(1, policy);
    check_call(kChoices[choice], payload);
  }
  return 0;
}
