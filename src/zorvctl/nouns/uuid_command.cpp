#include <CLI/CLI.hpp>

#include <cstring>
#include <memory>

#include "commands.h"
#include "daemon_answer.h"
#include "decimal_option.h"
#include "exit_status.h"
#include "zorv_calls.h"

namespace zorvctl {
namespace {

int print_uuids(unsigned count) {
  for (unsigned made = 0; made < count; ++made) {
    zorv_mobile_gen_uuid_data_get answer{};
    const int status = report_status(zorv_api::make_uuid({}, answer), "make a UUID");
    if (status != kDone) {
      return status;
    }
    const std::string uuid(answer.zorv_uuid, strnlen(answer.zorv_uuid, sizeof answer.zorv_uuid));
    if (!print(uuid + "\n")) {
      return kFailed;
    }
  }
  return kDone;
}

}  // namespace

void add_uuid_noun(CLI::App& program, Run* run) {
  CLI::App* noun = program.add_subcommand("uuid", "Device UUIDs, made by the daemon");
  noun->require_subcommand(1);
  CLI::App* verb = noun->add_subcommand("new", "Print fresh UUIDs, one a line");
  auto count = std::make_shared<unsigned>(1);
  verb->add_option("-n,--count", *count, "How many (1 if not given)")
      ->check(CLI::Range(1U, 1000000U))
      ->transform(decimal())
      ->type_name("N");
  verb->callback([count, run] { *run = [count] { return print_uuids(*count); }; });
}

}  // namespace zorvctl
