#include "server_log.h"

#include <cstring>
#include <filesystem>

#include "floor.h"
#include "harness/daemon.h"
#include "harness/test_root.h"

namespace bench {
namespace {

constexpr const char* kCopy = "/etc/config/zorv/floor.db";

template <size_t Size>
void put(char (&field)[Size], const char* text) {
  strncpy(field, text, Size - 1);
}

// The numbers 1 to `count` as the table n.
std::string numbers(int count) {
  return "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
         std::to_string(count) + ") ";
}

void fill(int rows, const std::string& insert, const std::string& values) {
  std::filesystem::remove(harness::test_root() + harness::kDatabase);
  harness::Daemon().stop();  // makes the tables
  if (rows > 0) {
    const Connection db = open_database(harness::kDatabase);
    execute(db.get(), "BEGIN; " + insert + " " + numbers(rows) + values + " FROM n; COMMIT;");
  }
}

}  // namespace

void fill_server_log(int rows) {
  fill(rows,
       "INSERT INTO conn_server_log (username, vpn_type, uptime, time, device_info, source_ip, "
       "vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, action)",
       "SELECT 'user' || (i % 50), 4, 600 + i % 3600, 1700000000 + i, 'linux 6.1, OpenVPN 2.6.3', "
       "'10.99.0.2', '10.8.0.' || (i % 250), 0, 0, i * 1000, i * 2000, 'eth0', 2 + i % 2");
}

void fill_blocks(int rows) {
  fill(rows, "INSERT INTO privilege_user_block (username, limit_count, timestamp)",
       "SELECT 'user' || i, 1 + i % 5, 1700000000 + i");
}

std::string copy_database() {
  std::filesystem::copy_file(harness::test_root() + harness::kDatabase,
                             harness::test_root() + kCopy,
                             std::filesystem::copy_options::overwrite_existing);
  return kCopy;
}

db_conn_server_log sample_record() {
  db_conn_server_log record{};
  put(record.username, "alice");
  put(record.device_info, "linux 6.1, OpenVPN 2.6.3");
  put(record.source_ip, "10.99.0.2");
  put(record.vpn_ip, "10.8.0.2");
  put(record.outgoing, "eth0");
  record.vpn_type = 4;
  record.uptime = 600;
  record.time = 1800000000;
  record.tx_total = 1024;
  record.rx_total = 2048;
  record.action = 3;
  return record;
}

db_query_cond page_of(record_int64 count, record_int64 order_by, const char* user) {
  db_query_cond cond{};
  cond.count = count;
  cond.order_by = order_by;
  cond.order_style = 1;
  if (user != nullptr) {
    put(cond.field, "username");
    put(cond.value, user);
  }
  return cond;
}

}  // namespace bench
