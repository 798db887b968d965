// The environment that an OpenVPN server gives its scripts, made into records, and the records made
// into every form in which they are shown.
//
// Input: "NAME=VALUE" entries, one a line.
#include <algorithm>
#include <cassert>
#include <cstring>

#include "openvpn_environment.h"
#include "record_writer.h"

static void check(const db_conn_server_log& record) {
  assert(record.vpn_type == 4 && record.action >= 1 && record.action <= 3);
  assert(record.tx_total >= 0 && record.rx_total >= 0);
  for (const auto* text : {&record.username, &record.device_info, &record.source_ip, &record.vpn_ip,
                           &record.outgoing}) {
    assert(strnlen(*text, sizeof *text) < sizeof *text);
  }
  for (const zorvctl::Format* format : zorvctl::kFormats) {
    std::string out;
    const auto writer = format->make_writer(
        {zorv::kServerLog.fields, {.zone = zorvctl::Zone::utc, .terminal = true, .columns = 80}},
        &out);
    writer->add(&record);
    writer->end_page();
    for (const char byte : out) {  // none moves the cursor
      assert(byte < 0 || byte == '\n' || byte == '\r' || (byte >= 0x20 && byte != 0x7f));
    }
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  std::replace(text.begin(), text.end(), '\n', '\0');
  std::vector<const char*> entries;
  for (size_t at = 0; at < text.size(); at += strlen(&text[at]) + 1) {
    entries.push_back(&text[at]);
  }
  entries.push_back(nullptr);
  constexpr std::time_t kNow = 1795234206;
  const zorvctl::Environment environment = zorvctl::environment_of(entries.data());
  for (auto* make : {zorvctl::login_record, zorvctl::logout_record, zorvctl::failed_login_record}) {
    check(make(environment, kNow));
  }
  return 0;
}
