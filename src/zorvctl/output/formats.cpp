#include <algorithm>

#include "record_writer.h"
#include "value_text.h"

namespace zorvctl {

extern const Format kTableFormat;
extern const Format kWideFormat;
extern const Format kJsonFormat;
extern const Format kPrettyFormat;
extern const Format kCsvFormat;

namespace {
constexpr const Format* kAll[] = {&kTableFormat, &kWideFormat, &kJsonFormat, &kPrettyFormat,
                                  &kCsvFormat};
}  // namespace

constexpr std::span<const Format* const> kFormats = kAll;

std::vector<const zorv::Field*> chosen_fields(const Shown& shown) {
  std::vector<const zorv::Field*> fields;
  for (const std::string& name : shown.style.chosen) {
    if (const zorv::Field* field = field_called(shown.fields, name)) {
      fields.push_back(field);
    }
  }
  for (const zorv::Field& field : shown.fields) {
    if (shown.style.chosen.empty()) {
      fields.push_back(&field);
    }
  }
  return fields;
}

const Format* find_format(std::string_view name) {
  const auto found = std::find_if(kFormats.begin(), kFormats.end(),
                                  [name](const Format* format) { return format->name == name; });
  return found != kFormats.end() ? *found : nullptr;
}

}  // namespace zorvctl
