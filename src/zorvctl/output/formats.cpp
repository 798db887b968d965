#include <algorithm>

#include "record_writer.h"

namespace zorvctl {

extern const Format kTableFormat;
extern const Format kJsonFormat;
extern const Format kCsvFormat;

namespace {
constexpr const Format* kAll[] = {&kTableFormat, &kJsonFormat, &kCsvFormat};
}  // namespace

constexpr std::span<const Format* const> kFormats = kAll;

const Format* find_format(std::string_view name) {
  const auto found = std::find_if(kFormats.begin(), kFormats.end(),
                                  [name](const Format* format) { return format->name == name; });
  return found != kFormats.end() ? *found : nullptr;
}

}  // namespace zorvctl
