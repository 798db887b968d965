// The client functions against a daemon that says anything: what they call, and how they read what
// comes back. kx_call() is the test's own.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "harness/records.h"
#include "harness/test_root.h"
#include "zorv_api_mobile.h"
#include "zorv_calls.h"

namespace {

using namespace std::string_literals;

constexpr const char* kLog = "/var/log/network/ZORV.log";

int next_status = KX_SUCCESS;
std::string next_reply;
std::string call_seen;  // "METHOD PAYLOAD"

}  // namespace

int kx_call(const char* address, const char* method, kx_io* io, int timeout_s, int fd) {
  EXPECT_STREQ(address, "@/var/run/zorvd.sock");
  EXPECT_EQ(timeout_s, 5);
  EXPECT_EQ(fd, -1);
  size_t length = 0;
  const auto* payload = static_cast<const char*>(kx_io_read(io, &length));
  call_seen = method + " "s + std::string(payload != nullptr ? payload : "", length);
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

std::string head(record_uint64 count, record_uint64 total) {
  const record_uint64 numbers[] = {count, total, ~0ULL};
  return harness::bytes_of(numbers);
}

// Stands for any record; every byte that a caller gives is the same letter.
constexpr struct {
  template <class Record>
  operator Record*() const {
    static Record record;
    memset(static_cast<void*>(&record), 'r', sizeof record);
    return &record;
  }
} any;

char user[] = "rrr";

// The list functions tell by what they leave in the result.
template <class Query>
int listed(int (*function)(db_query_cond*, Query**)) {
  next_reply = head(1, 7) + std::string(sizeof(*Query::data), 'x');
  const auto listed = harness::list(function, *static_cast<db_query_cond*>(any));
  EXPECT_EQ(listed.rows.size(), next_status == KX_SUCCESS ? 1U : 0U);
  EXPECT_EQ(listed.total, next_status == KX_SUCCESS ? 7U : 4711U);
  return next_status;
}

int device_added() {
  zorv_mobile_gen_uuid_data_get uuid{"kept"};
  const int status = add_device_info(any, &uuid);
  EXPECT_STREQ(uuid.zorv_uuid, status == KX_SUCCESS ? "" : "kept");
  return status;
}

int uuid_made() {
  next_reply = std::string(36, 'u');
  zorv_mobile_gen_uuid_data_get* uuid = any;
  EXPECT_EQ(zorv_mobile_gen_zorv_uuid(any, &uuid), 0);
  EXPECT_EQ(uuid->zorv_uuid[35], next_status == KX_SUCCESS ? 'u' : 'r');
  return next_status;
}

struct Function {
  const char* name;
  int (*call)();
  const char* entry = name;       // its line in the log
  const char* failure = nullptr;  // and the one of a failed call
};

constexpr Function kFunctions[] = {
    {"add_conn_server_log", [] { return add_conn_server_log(any); }, "add_connection_insert"},
    {"list_conn_server_log", [] { return listed(list_conn_server_log); }},
    {"delete_conn_server_log", [] { return delete_conn_server_log(any); }},
    {"clean_conn_server_log", [] { return clean_conn_server_log(); }},
    {"add_conn_client_log", [] { return add_conn_client_log(any); }, "add_connection_insert"},
    {"list_conn_client_log", [] { return listed(list_conn_client_log); }},
    {"delete_conn_client_log", [] { return delete_conn_client_log(any); }},
    {"clean_conn_client_log", [] { return clean_conn_client_log(); }},
    {"add_event_data", [] { return add_event_data(any); }, "add_event_insert"},
    {"list_event_data", [] { return listed(list_event_data); }},
    {"add_server_list", [] { return add_server_list(any); }, "add_server_list_insert"},
    {"list_server_list", [] { return listed(list_server_list); }},
    {"delete_server_list", [] { return delete_server_list(any); }},
    {"clean_server_list", [] { return clean_server_list(); }},
    {"add_device_info", device_added, "add_device_info_insert"},
    {"list_device_info", [] { return listed(list_device_info); }},
    {"delete_device_info", [] { return delete_device_info(any); }},
    {"clean_device_info", [] { return clean_device_info(); }},
    {"zorv_mobile_gen_zorv_uuid", uuid_made, "zorv_mobile_gen_zorv_uuid", "kx_call failed, ret = "},
    {"add_privilege_user_block", [] { return add_privilege_user_block(user); },
     "add_privilege_user_block_insert"},
    {"list_privilege_user_block", [] { return listed(list_privilege_user_block); },
     "list_privilege_user_block", "kxh list_privilege_user_block, ret="},
    {"delete_privilege_user_block", [] { return delete_privilege_user_block(user); }},
    {"clean_privilege_user_block", [] { return clean_privilege_user_block(); }},
    {"check_privilege_user_block", [] { return check_privilege_user_block(user); },
     "check_privilege_user_block", "kxh check_privilege_user_block, ret="},
};

// The documentation pairs functions and methods, and tells what is sent.
TEST(Client, EveryFunctionCallsItsMethodAndTellsItsStatus) {
  std::ifstream file(ZORV_SOURCE "/docs/records.md");
  const std::string documentation(std::istreambuf_iterator<char>(file), {});
  for (const Function& function : kFunctions) {
    SCOPED_TRACE(function.name);
    const size_t end = documentation.find("| `"s + function.name + "` |\n");
    ASSERT_NE(end, std::string::npos);
    std::istringstream row(documentation.substr(documentation.rfind('\n', end) + 1));
    std::string bar, method, type;
    row >> bar >> method >> bar >> type;
    size_t size = 0;
    if (!(row >> size)) {
      size = type == "user" ? 3 : function.call == uuid_made ? 4 : type == "any," ? 1 : 0;
    }
    const std::string expected = method.substr(1, method.size() - 2) + " " + std::string(size, 'r');
    const std::string line = "] "s + function.name + ":" + function.entry + "\n";
    for (const int status : {KX_SUCCESS, KX_IO_FAILURE, KX_IS_BUSY}) {
      harness::write_file(kLog, "");
      next_status = status;
      next_reply.clear();
      EXPECT_EQ(function.call(), status);
      EXPECT_TRUE(call_seen == expected) << call_seen.substr(0, 40);
      const std::string log = harness::read_file(kLog);
      EXPECT_NE(log.find(line), std::string::npos) << log;
      if (status != KX_SUCCESS && function.failure != nullptr) {
        EXPECT_TRUE(log.ends_with(function.failure + std::to_string(status))) << log;
      }
    }
  }
}

TEST(Client, APageIsWhatCameAndNotWhatIsAnnounced) {
  const std::string record(sizeof(db_privilege_user_block_data), 'x');
  const std::tuple<std::string, int, record_uint64> cases[] = {
      {"", KX_IO_FAILURE, 0},
      {head(0, 7).substr(1), KX_IO_FAILURE, 0},
      {head(1, 7) + record + record, KX_SUCCESS, 1},
      {head(2, 7) + record + record.substr(1), KX_SUCCESS, 1},
      {head(1ULL << 61, 7) + record, KX_SUCCESS, 1},
      // Large enough for the pages that are asked for.
      {head(5000, 7) + std::string(5000 * record.size(), 'y'), KX_SUCCESS, 5000},
  };
  for (const auto& [reply, status, count] : cases) {
    SCOPED_TRACE(reply.size());
    next_reply = reply;
    zorv_api::Rows rows;
    EXPECT_EQ(zorv_api::query(zorv::kUserBlock, harness::page(), rows), status);
    ASSERT_EQ(rows.count, count);
    EXPECT_EQ(rows.total, status == KX_SUCCESS ? 7U : 0U);
    const size_t size = static_cast<size_t>(count) * record.size();
    EXPECT_TRUE(size == 0 || memcmp(rows.record(0), reply.data() + 24, size) == 0);
  }
}

TEST(Client, UuidsAndAnswersInWordsAreReadWithCare) {
  using enum zorv_api::BlockAnswer;
  for (const auto& [reply, expected] : {std::pair{"1\0x"s, blocked},
                                        {"0"s, not_blocked},
                                        {"10"s, unknown},
                                        {std::string(35, 'u'), unknown},
                                        {std::string(36, 'u'), unknown}}) {
    SCOPED_TRACE(reply);
    next_status = KX_SUCCESS;
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
    EXPECT_EQ(check_privilege_user_block(user), expected == blocked ? 1 : 0);
    next_status = KX_IS_BUSY;
    EXPECT_EQ(zorv_api::check_block("user", answer = not_blocked), KX_IS_BUSY);
    EXPECT_EQ(answer, not_blocked) << "untouched";
  }
}

}  // namespace
