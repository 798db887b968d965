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
using zorv_api::BlockAnswer;

constexpr const char* kLog = "/var/log/network/ZORV.log";

int next_status;
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

// Only a caller with a part of a second left makes such a call.
int kx_call_ms(const char*, const char*, kx_io*, int, int) {
  ADD_FAILURE() << "called with milliseconds";
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

template <class Record>
Record filled() {
  Record* const record = any;
  return *record;
}

char user[] = "rrr";

// The list functions tell by what they leave in the result.
template <class Query>
int listed(int (*function)(db_query_cond*, Query**)) {
  next_reply = head(1, 7) + std::string(sizeof(*Query::data), 'x');
  const auto listed = harness::list(function, filled<db_query_cond>());
  EXPECT_EQ(listed.answered, next_status == KX_SUCCESS);
  EXPECT_EQ(listed.rows.size(), listed.answered ? 1U : 0U);
  EXPECT_EQ(listed.total, listed.answered ? 7U : 4711U);
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
  zorv_mobile_gen_uuid_data_get uuid{"kept"};
  zorv_mobile_gen_uuid_data_get* result = &uuid;
  EXPECT_EQ(zorv_mobile_gen_zorv_uuid(any, &result), 0);
  EXPECT_EQ(uuid.zorv_uuid[0], next_status == KX_SUCCESS ? 'u' : 'k');
  EXPECT_EQ(uuid.zorv_uuid[35], next_status == KX_SUCCESS ? 'u' : '\0');
  return next_status;
}

struct Function {
  const char* name;
  int (*call)();
  const char* entry = name;  // its line in the log
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
    {"zorv_mobile_gen_zorv_uuid", uuid_made},
    {"add_privilege_user_block", [] { return add_privilege_user_block(user); },
     "add_privilege_user_block_insert"},
    {"list_privilege_user_block", [] { return listed(list_privilege_user_block); }},
    {"delete_privilege_user_block", [] { return delete_privilege_user_block(user); }},
    {"clean_privilege_user_block", [] { return clean_privilege_user_block(); }},
    {"check_privilege_user_block", [] { return check_privilege_user_block(user); }},
};

// The documentation pairs functions and methods, and tells what is sent.
TEST(Client, EveryFunctionCallsItsMethodAndTellsItsStatus) {
  const std::string documentation = [] {
    std::ifstream file(ZORV_SOURCE "/docs/records.md");
    return std::string(std::istreambuf_iterator<char>(file), {});
  }();
  for (const Function& function : kFunctions) {
    SCOPED_TRACE(function.name);
    const size_t end = documentation.find("| `"s + function.name + "` |\n");
    ASSERT_NE(end, std::string::npos);
    std::istringstream row(documentation.substr(documentation.rfind('\n', end) + 1));
    std::string bar, method, type;
    row >> bar >> method >> bar >> type;
    int size = 0;
    if (!(row >> size)) {
      size = type == "user" ? 3 : function.call == uuid_made ? 4 : type == "any," ? 1 : 0;
    }
    const std::string expected =
        method.substr(1, method.size() - 2) + " " + std::string(static_cast<size_t>(size), 'r');
    for (int status = KX_SUCCESS; status <= KX_IS_INVALID; ++status) {
      harness::write_file(kLog, "");
      next_status = status;
      next_reply.clear();
      EXPECT_EQ(function.call(), status);
      EXPECT_TRUE(call_seen == expected) << call_seen.substr(0, 40);
      const std::string log = harness::read_file(kLog);
      EXPECT_NE(log.find("] "s + function.name + ":" + function.entry + "\n"), std::string::npos)
          << log;
    }
  }
  next_status = KX_IS_BUSY;
  listed(list_privilege_user_block);
  check_privilege_user_block(user);
  uuid_made();
  const std::string log = harness::read_file(kLog);
  for (const char* line : {"kxh list_privilege_user_block, ret=6",
                           "kxh check_privilege_user_block, ret=6", "kx_call failed, ret = 6"}) {
    EXPECT_NE(log.find(line), std::string::npos) << line;
  }
}

TEST(Client, APageIsWhatCameAndNotWhatIsAnnounced) {
  const std::string record(sizeof(db_privilege_user_block_data), 'x');
  const struct {
    std::string reply;
    int status;
    record_uint64 count, total;
  } cases[] = {
      {"", KX_IO_FAILURE, 0, 0},
      {head(0, 0).substr(1), KX_IO_FAILURE, 0, 0},
      {head(0, 9), KX_SUCCESS, 0, 9},
      {head(5, ~0ULL), KX_SUCCESS, 0, ~0ULL},
      {head(1, 2) + record + record, KX_SUCCESS, 1, 2},
      {head(2, 2) + record + record, KX_SUCCESS, 2, 2},
      {head(2, 2) + record + record.substr(1), KX_SUCCESS, 1, 2},
      {head(3, 2) + record + record, KX_SUCCESS, 2, 2},
      {head(1ULL << 61, 2) + record, KX_SUCCESS, 1, 2},
      {head(~0ULL, 2) + record, KX_SUCCESS, 1, 2},
      // Large enough for the pages that are asked for.
      {head(5000, 5000) + std::string(5000 * record.size(), 'y'), KX_SUCCESS, 5000, 5000},
  };
  next_status = KX_SUCCESS;
  for (const auto& c : cases) {
    next_reply = c.reply;
    zorv_api::Rows rows;
    EXPECT_EQ(zorv_api::query(zorv::kUserBlock, harness::page(), rows), c.status) << c.reply.size();
    EXPECT_EQ(rows.count, c.count) << c.reply.size();
    EXPECT_EQ(rows.total, c.total) << c.reply.size();
    if (c.count != 0) {
      EXPECT_EQ(memcmp(rows.record(0), c.reply.data() + kQueryHeaderSize,
                       static_cast<size_t>(c.count) * record.size()),
                0);
    }
    const auto listed = harness::list(list_privilege_user_block);
    EXPECT_EQ(listed.answered, c.status == KX_SUCCESS);
    EXPECT_EQ(listed.rows.size(), c.count);
  }
}

TEST(Client, AUuidIsTerminatedWhateverCame) {
  next_status = KX_SUCCESS;
  const db_device_info_data device{};
  for (const auto& [reply, text] : {std::pair{""s, ""s},
                                    {"short"s, "short"s},
                                    {"abc\0def"s, "abc"s},
                                    {std::string(35, 'u'), std::string(35, 'u')},
                                    {std::string(36, 'u'), std::string(35, 'u')},
                                    {std::string(5000, 'u'), std::string(35, 'u')}}) {
    next_reply = reply;
    auto uuid = filled<zorv_mobile_gen_uuid_data_get>();
    EXPECT_EQ(zorv_api::insert_device(device, uuid), KX_SUCCESS);
    EXPECT_STREQ(uuid.zorv_uuid, text.c_str());

    // The other method's are 36 bytes as they come, or a failure.
    auto made = filled<zorv_mobile_gen_uuid_data_get>();
    const bool whole = reply.size() >= sizeof made;
    EXPECT_EQ(zorv_api::make_uuid({1}, made), whole ? KX_SUCCESS : KX_IO_FAILURE);
    EXPECT_EQ(harness::bytes_of(made), std::string(36, whole ? 'u' : 'r'));
  }
}

TEST(Client, OnlyAClearAnswerBlocks) {
  for (const auto& [reply, answer] : {std::pair{"1"s, BlockAnswer::blocked},
                                      {"1\0x"s, BlockAnswer::blocked},
                                      {"0"s, BlockAnswer::not_blocked},
                                      {"-1"s, BlockAnswer::unknown},
                                      {"10"s, BlockAnswer::unknown},
                                      {"01"s, BlockAnswer::unknown},
                                      {""s, BlockAnswer::unknown}}) {
    next_status = KX_SUCCESS;
    next_reply = reply;
    auto told = reply == "-1" ? BlockAnswer::blocked : BlockAnswer::unknown;
    EXPECT_EQ(zorv_api::check_block("user", told), KX_SUCCESS);
    EXPECT_EQ(told, answer) << reply;
    EXPECT_EQ(check_privilege_user_block(user), answer == BlockAnswer::blocked ? 1 : 0) << reply;
    next_status = KX_IS_BUSY;
    told = BlockAnswer::blocked;
    EXPECT_EQ(zorv_api::check_block("user", told), KX_IS_BUSY);
    EXPECT_EQ(told, BlockAnswer::blocked) << "untouched";
  }
}

}  // namespace
