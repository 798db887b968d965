// The environment that an OpenVPN server gives its scripts, made into records, and the records made
// into every form in which they are shown.
//
// Input: "NAME=VALUE" entries, one a line.
#include <jansson.h>

#include <algorithm>
#include <cstring>

#include "json_ref.h"
#include "openvpn_environment.h"
#include "record_writer.h"
#include "stand_ins.h"

namespace {

using fuzz::require;

constexpr std::time_t kNow = 1795234206;

void check_record(const db_conn_server_log& record) {
  require(record.vpn_type == 4 && record.action >= 1 && record.action <= 3, "its codes");
  require(record.tx_total >= 0 && record.rx_total >= 0, "no negative count of bytes");
  for (const auto* text : {&record.username, &record.device_info, &record.source_ip, &record.vpn_ip,
                           &record.outgoing}) {
    require(strnlen(*text, sizeof *text) < sizeof *text, "every text ends within its field");
  }
}

void check_output(const db_conn_server_log& record) {
  const auto fields = zorv::kServerLog.fields;
  for (const zorvctl::Format* format : zorvctl::kFormats) {
    std::string out;
    const auto writer =
        format->make_writer({fields, nullptr, {zorvctl::Zone::utc, true, true, 80}}, &out);
    writer->add(&record);
    writer->end_page();
    if (out.starts_with('{')) {
      const JsonRef parsed(json_loads(out.c_str(), JSON_DECODE_INT_AS_REAL, nullptr));
      require(json_object_size(parsed.get()) == fields.size(), "a JSON object of all fields");
    }
    std::erase_if(out, [](char byte) { return byte == '\n' || byte == '\r'; });
    const auto moves_the_cursor = [](char byte) {
      return (byte >= 0 && byte < 0x20) || byte == 0x7f;
    };
    require(std::none_of(out.begin(), out.end(), moves_the_cursor), "a terminal stays as it is");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<const char*> entries;
  const auto lines = fuzz::split({reinterpret_cast<const char*>(data), size}, '\n');
  for (const std::string& line : lines) {
    entries.push_back(line.c_str());
  }
  entries.push_back(nullptr);
  const zorvctl::Environment environment = zorvctl::environment_of(entries.data());
  for (const auto& record :
       {zorvctl::login_record(environment, kNow), zorvctl::logout_record(environment, kNow),
        zorvctl::failed_login_record(environment, kNow)}) {
    check_record(record);
    check_output(record);
  }
  return 0;
}
