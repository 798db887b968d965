// 32-bit and 64-bit programs on one bus: whichever width client and daemon have, the same requests
// are sent, the same replies arrive and the same rows are stored, byte by byte.
#include <gtest/gtest.h>

#include <filesystem>

#include "harness/daemon.h"
#include "harness/fake_service.h"
#include "harness/test_root.h"
#include "zorv_api_db.h"

namespace {

using harness::FakeService;

struct Build {
  const char* width;
  std::string programs;
};

const Build kBuilds[] = {{"32 bits", harness::program("")}, {"64 bits", ZORV_NATIVE_PROGRAMS}};

std::string run_client(const Build& build) {
  const std::string program = build.programs + "/wire_client";
  EXPECT_TRUE(std::filesystem::exists(program)) << program << ": build it first";
  const harness::Outcome outcome = harness::run({program});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  return outcome.out;
}

struct Traffic {
  std::string printed;  // by the client
  std::vector<std::string> stored;
};

Traffic traffic_between(const Build& client, const Build& daemon) {
  std::filesystem::remove(harness::test_root() + harness::kDatabase);
  const FakeService policy("vpncaas", "read_json",
                           R"({"error": 0, "data": {"global": {"enable": true, "limit": 2,
                              "time": 5}}})");
  harness::Process process({daemon.programs + "/zorvd"});
  EXPECT_TRUE(harness::wait_until_serving(kZorvdAddress));
  Traffic traffic{run_client(client), {}};
  // The logs keep their rows: a clean behind a delete runs a text that is no statement.
  for (const char* table : {"conn_server_log", "conn_client_log", "privilege_user_block"}) {
    for (const std::string& row : harness::sql("SELECT * FROM " + std::string(table))) {
      traffic.stored.push_back(table + (" " + row));
    }
  }
  EXPECT_EQ(process.terminate(), 0);
  return traffic;
}

size_t count_of(const std::string& text, const std::string& word) {
  size_t count = 0;
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
    ++count;
  }
  return count;
}

TEST(MixedWidth, EveryPairOfClientAndDaemonSpeaksTheSame) {
  const Traffic expected = traffic_between(kBuilds[1], kBuilds[1]);
  EXPECT_EQ(count_of(expected.printed, "  row 0 "), 33U) << expected.printed;
  EXPECT_EQ(expected.stored.size(), 20U);
  for (const Build& client : kBuilds) {
    for (const Build& daemon : kBuilds) {
      const Traffic traffic = traffic_between(client, daemon);
      EXPECT_TRUE(traffic.printed == expected.printed)
          << "client " << client.width << ", daemon " << daemon.width << "\n"
          << traffic.printed << "instead of\n"
          << expected.printed;
      EXPECT_EQ(traffic.stored, expected.stored) << client.width << ", " << daemon.width;
    }
  }
}

// A reply of `count` records whose every byte has a value of its own place; the header's last eight
// bytes, which mean nothing, are the least welcome ones.
std::string query_reply(size_t count, size_t record_size) {
  std::string reply(kQueryHeaderSize + count * record_size, '\0');
  reply[0] = static_cast<char>(count);
  reply[8] = 99;
  for (size_t i = 16; i < reply.size(); ++i) {
    reply[i] = static_cast<char>(i < kQueryHeaderSize ? 0xff : i * 7 % 251);
  }
  return reply;
}

TEST(MixedWidth, ClientsSendTheSameRequestsAndReadRepliesTheSame) {
  std::map<std::string, FakeService::Answer> answers;
  const auto answer_with = [&answers](const std::string& method, const std::string& reply) {
    answers[method] = [reply] { return reply; };
  };
  for (const char* method :
       {"db_conn_insert", "db_conn_server_log_clean", "db_conn_server_log_del",
        "db_conn_client_log_insert", "db_conn_client_log_clean", "db_conn_client_log_del",
        "db_event_insert", "db_server_list_insert", "db_server_list_del", "db_server_list_clean",
        "db_device_info_del", "db_device_info_clean", "db_privilege_user_block_insert",
        "db_privilege_user_block_del", "db_privilege_user_block_clean"}) {
    answer_with(method, "");
  }
  answer_with("db_conn_server_log_query", query_reply(3, 5200));
  answer_with("db_conn_client_log_query", query_reply(2, 3152));
  answer_with("db_event_query", query_reply(5, 1));
  answer_with("db_server_list_query", query_reply(2, 4128));
  answer_with("db_device_info_query", query_reply(2, 7192));
  answer_with("db_privilege_user_block_query", query_reply(100, 1048));
  answer_with("db_device_info_insert",
              "0123456789abcdef0123456789abcdef%Z?" + std::string(1, '\0'));
  answer_with("zorv_mobile_gen_zorv_uuid", "the 36 bytes of a text as they come");
  answer_with("db_privilege_user_block_check", "1");
  ASSERT_EQ(answers.size(), 24U);

  std::filesystem::create_directories(harness::test_root() + "/calls.@/var/run");
  std::string printed[2];
  std::vector<std::string> requests[2];
  for (size_t i = 0; i < 2; ++i) {
    const FakeService service(kZorvdAddress, answers);
    printed[i] = run_client(kBuilds[i]);
    requests[i] = service.calls();
  }
  EXPECT_TRUE(requests[0] == requests[1]);
  EXPECT_TRUE(printed[0] == printed[1]) << printed[0] << "instead of\n" << printed[1];
  std::string all;
  for (const std::string& request : requests[1]) {
    all += "\n" + request;
  }
  for (const auto& [method, answer] : answers) {
    EXPECT_GT(count_of(all, "\n" + method + " "), 0U) << method;
  }
}

}  // namespace
