#include <cstdio>
#include <cstring>

#include "global_options.h"
#include "json_ref.h"
#include "logger.h"

namespace zorv {
namespace {

LogModule log_module{"global_options"};

void print_line(const json_t* answer) {
  puts(text_or_empty(dump_json(answer)));
}

}  // namespace

void get_setting(char* key) {
  const GlobalConfig config;
  JsonRef data(key == nullptr ? config.load() : config.load(key));
  const JsonRef answer(json_object());
  json_object_set_new(answer.get(), "data", data.release());
  json_object_set_new(answer.get(), "error", json_integer(NO_ERROR));
  print_line(answer.get());
}

// There is no text for people: programs read the answer.
void usage() {
  const JsonRef answer(json_object());
  json_object_set_new(answer.get(), "error", json_integer(-1));
  print_line(answer.get());
}

int cmd_global_opt([[maybe_unused]] char* name, int argc, char** argv) {
  std::string words;
  for (int i = 0; i < argc; ++i) {
    words += argv[i];
    words += ' ';
  }
  ZORV_LOG(debug, "argc=%d, argvs=%s", argc, words.c_str());
  const bool is_get = argc >= 2 && strcmp(argv[1], "get") == 0;
  if (is_get && argc == 2) {
    get_setting(nullptr);
  } else if (is_get && argc == 3) {
    get_setting(argv[2]);
  } else {
    usage();
  }
  return 0;
}

}  // namespace zorv
