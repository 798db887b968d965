// The environment that an OpenVPN server gives its scripts, made into records, and the records made
// into every form in which they are shown.
//
// Input: "NAME=VALUE" entries, one a line.
#include <jansson.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "display_text.h"
#include "json_ref.h"
#include "openvpn_environment.h"
#include "record_kind.h"
#include "record_writer.h"
#include "stand_ins.h"

namespace {

using fuzz::require;

constexpr std::time_t kNow = 1795234206;

bool moves_the_cursor(char byte) {
  return (byte >= 0 && byte < 0x20) || byte == 0x7f;
}

template <size_t Size>
void check_text(const char (&field)[Size]) {
  require(strnlen(field, Size) < Size, "every text ends within its field");
  const std::string shown = zorvctl::display_text(field);
  require(std::none_of(shown.begin(), shown.end(), moves_the_cursor), "what is shown is harmless");
}

void check_record(const db_conn_server_log& record) {
  require(record.vpn_type == 4 && record.action >= 1 && record.action <= 3, "its codes");
  require(record.tx_total >= 0 && record.rx_total >= 0, "no negative count of bytes");
  for (const auto* field : {&record.username, &record.device_info, &record.source_ip,
                            &record.vpn_ip, &record.outgoing}) {
    check_text(*field);
  }
}

void check_output(const db_conn_server_log& record) {
  const zorvctl::Columns columns = zorvctl::kServerLog.columns;
  std::string json;
  zorvctl::make_json_writer(columns, &json)->add(&record);
  const JsonRef parsed(json_loads(json.c_str(), JSON_DECODE_INT_AS_REAL, nullptr));
  require(json_object_size(parsed.get()) == columns.size(), "a JSON object of all columns");

  std::string csv;
  std::string table;
  const zorvctl::Style style{zorvctl::Zone::utc, true, true, 80};
  zorvctl::make_csv_writer(columns, style, &csv)->add(&record);
  const auto writer = zorvctl::make_table_writer(columns, {}, style, &table);
  writer->add(&record);
  writer->end_page();
  std::erase_if(table, [](char byte) { return byte == '\n'; });
  std::erase_if(csv, [](char byte) { return byte == '\n' || byte == '\r'; });
  table += csv;
  require(std::none_of(table.begin(), table.end(), moves_the_cursor), "a terminal stays as it is");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::string> lines =
      fuzz::split({reinterpret_cast<const char*>(data), size}, '\n');
  std::vector<const char*> entries;
  for (const std::string& line : lines) {
    entries.push_back(line.c_str());
  }
  entries.push_back(nullptr);
  const zorvctl::Environment environment = zorvctl::environment_of(entries.data());
  zorvctl::script_type(environment);
  zorvctl::is_expired_token(environment);
  require(zorvctl::login_name(environment).size() < kTextSize, "a name that fits");
  for (const auto& record :
       {zorvctl::login_record(environment, kNow), zorvctl::logout_record(environment, kNow),
        zorvctl::failed_login_record(environment, kNow)}) {
    check_record(record);
    check_output(record);
  }
  return 0;
}
