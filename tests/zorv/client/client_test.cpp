// The client functions against a daemon that says anything: what they call, and how they read what
// comes back. kx_call() is the test's own.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>

#include "harness/daemon.h"
#include "harness/records.h"
#include "zorv_api_mobile.h"
#include "zorv_calls.h"

namespace {

using namespace std::string_literals;

int next_status = KX_SUCCESS;
std::string next_reply;
std::string method_seen;
std::string payload_seen;

}  // namespace

int kx_call(const char* address, const char* method, kx_io* io, int timeout_s, int fd) {
  EXPECT_STREQ(address, "@/var/run/zorvd.sock");
  EXPECT_EQ(timeout_s, 5);
  EXPECT_EQ(fd, -1);
  size_t length = 0;
  const auto* payload = static_cast<const char*>(kx_io_read(io, &length));
  method_seen = method;
  payload_seen.assign(payload != nullptr ? payload : "", length);
  if (next_status == KX_SUCCESS) {
    kx_io_realloc(io, 0);
    kx_io_write(io, next_reply.data(), next_reply.size());
  }
  return next_status;
}

int kx_call_ms(const char*, const char*, kx_io*, int, int) {
  return KX_IS_INVALID;
}

namespace {

// Any record, of one letter, or a text of one.
constexpr struct {
  template <class Record>
  operator Record*() const {
    static struct {
      Record record;
      char end;
    } storage;
    memset(static_cast<void*>(&storage.record), 'r', sizeof storage.record);
    return &storage.record;
  }
} any;

using Call = std::function<int()>;

Call with_any(int (*function)()) {
  return function;
}

template <class Argument>
Call with_any(int (*function)(Argument*)) {
  return [function] { return function(any); };
}

// The list functions tell by what they leave in the result. A page is what came, and not what is
// announced.
template <class Query>
Call with_any(int (*function)(db_query_cond*, Query**)) {
  return [function] {
    const std::string record(sizeof(*Query::data), 'x');
    for (const record_uint64 announced : {1ULL, 1ULL << 61}) {
      const record_uint64 head[] = {announced, 7, ~0ULL};
      next_reply = harness::bytes_of(head) + record + (announced == 1 ? record : record.substr(1));
      const auto listed = harness::list(function, *static_cast<db_query_cond*>(any));
      EXPECT_EQ(listed.rows.size(), next_status == KX_SUCCESS ? 1U : 0U);
      EXPECT_TRUE(listed.rows.empty() || harness::bytes_of(listed.rows[0]) == record);
      EXPECT_EQ(listed.total, next_status == KX_SUCCESS ? 7U : 4711U);
    }
    return next_status;
  };
}

template <class... Functions>
std::vector<Call> calls_of(Functions... functions) {
  return {with_any(functions)...};
}

int device_added() {
  zorv_mobile_gen_uuid_data_get uuid{"kept"};
  const int status = add_device_info(any, &uuid);
  EXPECT_STREQ(uuid.zorv_uuid, status == KX_SUCCESS ? "" : "kept");
  return status;
}

int uuid_made() {
  zorv_mobile_gen_uuid_data_get* uuid = any;
  return zorv_mobile_gen_zorv_uuid(any, &uuid) == 0 ? next_status : -1;
}

// The documentation has a row for each method, which tells what is sent and, last, the function.
TEST(Client, EveryFunctionCallsItsMethodAndTellsItsStatus) {
  std::ifstream file(ZORV_SOURCE "/docs/records.md");
  const std::string documentation(std::istreambuf_iterator<char>(file), {});
  size_t end = documentation.find("| `db_conn_insert`") - 1;
  for (const Call& call : calls_of(
           add_conn_server_log, list_conn_server_log, clean_conn_server_log, delete_conn_server_log,
           add_conn_client_log, list_conn_client_log, clean_conn_client_log, delete_conn_client_log,
           add_event_data, list_event_data, add_server_list, list_server_list, delete_server_list,
           clean_server_list, device_added, list_device_info, delete_device_info, clean_device_info,
           uuid_made, add_privilege_user_block, list_privilege_user_block,
           delete_privilege_user_block, clean_privilege_user_block, check_privilege_user_block)) {
    const size_t start = std::exchange(end, documentation.find('\n', end + 1)) + 1;
    const std::string row = documentation.substr(start, end - start);
    for (const int status : {KX_SUCCESS, KX_IS_BUSY}) {
      harness::write_file(harness::kLogFile, "");
      next_status = status;
      next_reply.clear();
      EXPECT_EQ(call(), status);
      EXPECT_TRUE(row.starts_with("| `" + method_seen + "` |")) << row << method_seen;
      const size_t size = payload_seen.size();
      EXPECT_EQ(payload_seen, std::string(size, 'r'));
      EXPECT_TRUE(size <= 4 || row.find("` " + std::to_string(size) + " |") != row.npos) << size;
      const harness::LogLine line = harness::log_lines().at(0);
      EXPECT_TRUE(row.ends_with(" | `" + line.function + "` |")) << row;
      EXPECT_EQ(line.text.ends_with("_insert\n"), line.function.starts_with("add_")) << row;
    }
  }
}

TEST(Client, AnswersAreReadWithCare) {
  using enum zorv_api::BlockAnswer;
  for (const auto& [reply, expected] : {std::pair{"1\0x"s, blocked},
                                        {"0"s, not_blocked},
                                        {"10"s, unknown},
                                        {std::string(35, 'u'), unknown},
                                        {std::string(36, 'u'), unknown}}) {
    next_reply = reply;
    zorv_mobile_gen_uuid_data_get uuid = *static_cast<decltype(&uuid)>(any);
    const bool whole = reply.size() == sizeof uuid;  // they are taken as they come
    EXPECT_EQ(zorv_api::make_uuid({1}, uuid), whole ? KX_SUCCESS : KX_IO_FAILURE);
    EXPECT_EQ(harness::bytes_of(uuid), std::string(36, whole ? 'u' : 'r'));
    EXPECT_EQ(zorv_api::insert_device({}, uuid), KX_SUCCESS);
    EXPECT_EQ(uuid.zorv_uuid, std::string(reply.substr(0, 35).c_str())) << "terminated";
    auto answer = blocked;
    EXPECT_EQ(zorv_api::check_block("user", answer), KX_SUCCESS);
    EXPECT_EQ(answer, expected);
    EXPECT_EQ(check_privilege_user_block(any), expected == blocked ? 1 : 0);
  }
}

}  // namespace
