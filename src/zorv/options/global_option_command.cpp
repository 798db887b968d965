#include "global_option_command.h"

#include <cstdio>
#include <utility>

#include "global_options.h"
#include "logger.h"

namespace zorv {
namespace {

LogModule log_module{"global_options"};

void print_line(const json_t* answer) {
  puts(text_or_empty(dump_json(answer)));
}

OptionsFile print_setting(const char* key) {
  OptionsFile file = read_options();
  JsonRef options = taken_options(file);
  JsonRef data = key == nullptr ? std::move(options) : section_of(options.get(), key);
  const JsonRef answer(json_object());
  json_object_set_new(answer.get(), "data", data.release());
  json_object_set_new(answer.get(), "error", json_integer(NO_ERROR));
  print_line(answer.get());
  return file;
}

}  // namespace

void get_setting(char* key) {
  print_setting(key);
}

// There is no text for people: programs read the answer.
void usage() {
  const JsonRef answer(json_object());
  json_object_set_new(answer.get(), "error", json_integer(-1));
  print_line(answer.get());
}

std::optional<OptionsFile> answer_global_opt(const std::vector<std::string>& words) {
  const LogSite site{log_module, __LINE__, "cmd_global_opt"};
  std::string shown;
  for (const std::string& word : words) {
    shown += word + ' ';
  }
  ZORV_LOG_AT(site, debug, "argc=%zu, argvs=%s", words.size(), shown.c_str());
  const bool is_get = words.size() >= 2 && words[1] == "get";
  if (is_get && words.size() <= 3) {
    return print_setting(words.size() == 3 ? words[2].c_str() : nullptr);
  }
  usage();
  return std::nullopt;
}

int cmd_global_opt([[maybe_unused]] char* name, int argc, char** argv) {
  answer_global_opt({argv, argv + argc});
  return 0;
}

}  // namespace zorv
