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
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "kx_io.h"
#include "kx_packet.h"
#include "kx_transport.h"
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
    sqlite3_open(platform::rooted(store::kDatabaseFile).c_str(), &opened);
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

// A caller and the serving side of the bus in one: the request travels through a socket into the
// server's buffer, as every request does, and the answer back.
class Caller {
 public:
  Caller() {
    request_.on_loan = true;
    require(request_.buffer.allocate_cleared() && answer_.allocate(), "memory for buffers");
  }

  // The status of the answer, and its body.
  int call(const char* method, const std::string& payload, std::string& ret_body) {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "a socket pair");
    const kxbus::Descriptor socket(ends[0]);
    request_.caller.reset(ends[1]);

    kxbus::HeaderBytes header;
    kxbus::encode_request({.method = method, .body_length = payload.size()}, header);
    require(kxbus::send_packet(socket.get(), header, payload, method, {}) == 0, "a request");
    serve();

    kxbus::ReplyFrame frame;
    const kxbus::Incoming incoming = receive(socket.get(), answer_);
    require(kxbus::decode_reply(incoming.packet(answer_.packet_space()), frame) == KX_SUCCESS,
            "an answer that can be read");
    if (frame.body_in_memfd) {
      kxbus::Descriptor memfd(dup(incoming.descriptors[0].get()));
      require(answer_.accept_memfd(std::move(memfd), frame.body_length) == KX_SUCCESS,
              "a sealed answer");
    } else {
      answer_.accept_reply(frame.body_length);
    }
    const char* const body = answer_.read();
    ret_body.assign(body != nullptr ? body : "", answer_.size());
    answer_.clear();
    return frame.status;
  }

 private:
  static kxbus::Incoming receive(int socket, kxbus::Buffer& buffer) {
    kxbus::Incoming incoming;
    require(kxbus::receive_packet(socket, buffer.packet_space(), kxbus::Wait::no, incoming) ==
                kxbus::Receipt::packet,
            "every packet arrives");
    return incoming;
  }

  void serve() {
    kxbus::RequestFrame frame;
    const kxbus::Incoming incoming = receive(request_.caller.get(), request_.buffer);
    require(
        kxbus::decode_request(incoming.packet(request_.buffer.packet_space()), frame) == KX_SUCCESS,
        "a request that can be read");
    const std::string method(frame.method);
    request_.buffer.accept_request(incoming.received - kxbus::kHeaderSize, frame.body_length);
    if (frame.body_length > 0) {
      const char* const body = request_.buffer.read();
      const char* const end = body + std::max(kRecordSpace, frame.body_length + 1);
      require(std::all_of(body + frame.body_length, end, [](char byte) { return byte == 0; }),
              "zeros behind the payload");
    }
    zorvd_method_handler(method.c_str(), &request_, -1);
    request_.finish(KX_IS_INVALID);
    request_.buffer.clear();
  }

  kx_io request_;
  kxbus::Buffer answer_;
};

Caller& caller() {
  static const auto instance = std::make_unique<Caller>();
  return *instance;
}

void check_query_answer(const std::string& body, size_t record_size) {
  require(body.size() >= kQueryHeaderSize, "a query's answer has its header");
  query_result<char> header{};
  memcpy(&header, body.data(), kQueryHeaderSize);
  require(header.data == nullptr, "no address leaves the process");
  require(header.count == (body.size() - kQueryHeaderSize) / record_size &&
              (body.size() - kQueryHeaderSize) % record_size == 0,
          "as many records as announced");
  require(header.count <= 100000, "a page within the limit");
}

void call(const Choice& choice, const std::string& payload) {
  std::string body;
  const int status = caller().call(choice.method, payload, body);
  if (&choice == &kUnknown) {
    require(status == KX_IS_INVALID, "nobody's method");
  } else {
    require(status == KX_SUCCESS || status == KX_IS_REJECT, "done or refused");
  }
  require(status == KX_SUCCESS || body.empty(), "a refusal without a body");
  if (status == KX_SUCCESS && choice.record_size != 0) {
    check_query_answer(body, choice.record_size);
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
  std::string body;
  caller().call("db_server_list_query", payload, body);
  caller().call("db_device_info_query", payload, body);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::prepare();
  sqlite3_auto_extension(reinterpret_cast<void (*)()>(make_temporary_tables));
  require(store::create_conn_server_log_db() == 0 && store::create_conn_client_log_db() == 0 &&
              store::create_server_list_db() == 0 && store::create_device_info_db() == 0 &&
              store::create_privilege_user_block_db() == 0,
          "the tables can be made");
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
    call(kChoices[choice], payload);
  }
  return 0;
}
