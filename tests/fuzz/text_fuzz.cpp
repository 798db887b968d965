// Single texts that are read as numbers, names, times and values, or made safe to show.
//
// Input: the text.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "display_text.h"
#include "duration.h"
#include "global_options.h"
#include "long_conversion.h"
#include "record_kind.h"
#include "stand_ins.h"
#include "time_argument.h"
#include "value_text.h"

namespace {

using fuzz::require;

constexpr time_t kNow = 1795234206;

void read_number(const std::string& text) {
  const long long wide = strtoll(text.c_str(), nullptr, 10);
  const auto expected =
      std::clamp<long long>(wide, std::numeric_limits<int>::min(), std::numeric_limits<int>::max());
  require(long_conversion(text.c_str()) == expected, "strtol on 32 bits");
}

void read_interface_name(const std::string& text) {
  zorv::TYPE type = zorv::NONE_TYPE;
  int index = 0;
  zorv::ifname_to_typeindex(text.c_str(), type, index);
  require(type != zorv::NONE_TYPE || index == 0, "no index without a type");
  require((type == zorv::NONE_TYPE) == zorv::typeindex_to_sname(type, index).empty(),
          "every client has a name");
}

void read_times(const std::string& text) {
  for (const auto zone : {zorvctl::Zone::local, zorvctl::Zone::utc}) {
    unsigned long long seconds = 0;
    if (zorvctl::parse_time(text, kNow, zone, &seconds) == 0) {
      zorvctl::time_text(seconds, zone);
    }
  }
  unsigned long long seconds = 0;
  if (zorvctl::parse_duration(text, &seconds) == 0) {
    require(!zorvctl::duration_text(seconds).empty(), "every duration has a text");
  }
}

void read_values(const std::string& text) {
  for (const zorvctl::RecordKind* kind :
       {&zorvctl::kServerLog, &zorvctl::kClientLog, &zorvctl::kDevice, &zorvctl::kBlock}) {
    for (const zorvctl::Column& column : kind->columns) {
      zorvctl::Value value;
      std::string error;
      if (zorvctl::read_value(column, text, kNow, zorvctl::Zone::utc, &value, &error) == 0) {
        zorvctl::shown_value(column, value, zorvctl::Zone::utc);
      } else {
        require(!error.empty(), "a refusal has its reason");
      }
    }
  }
}

void show(const std::string& text) {
  const std::string shown = zorvctl::display_text(text);
  require(zorvctl::display_text(shown) == shown, "what was made safe is safe");
  for (unsigned columns : {0U, 1U, 7U}) {
    const std::string_view front = zorvctl::fitting_front(shown, columns);
    require(shown.starts_with(front) && zorvctl::display_width(front) <= columns,
            "a front that fits");
  }
  escape_json(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  read_number(text);
  read_interface_name(text);
  read_times(text);
  read_values(text);
  show(text);
  return 0;
}
