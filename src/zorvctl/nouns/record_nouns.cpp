#include <CLI/CLI.hpp>

#include "commands.h"
#include "daemon_answer.h"
#include "decimal_option.h"
#include "exit_status.h"
#include "zorv_api_mobile.h"

namespace zorvctl {
namespace {

constexpr const RecordKind* kNouns[] = {&kServerLog, &kClientLog, &kEvent, &kSession, &kDevice};

std::vector<ComputedColumn> session_columns() {
  const auto now = static_cast<unsigned long long>(std::time(nullptr));
  return {{"STATE", false, [now](const void* record) -> std::string {
             const auto expires = static_cast<const db_server_list_data*>(record)->expire_time;
             if (expires == 0) {
               return "-";
             }
             return expires <= now ? "expired" : "valid";
           }}};
}

int print_uuids(unsigned count) {
  for (unsigned made = 0; made < count; ++made) {
    zorv_mobile_gen_uuid_data_set request{};
    zorv_mobile_gen_uuid_data_get answer{};
    zorv_mobile_gen_uuid_data_get* result = &answer;
    const CallTime time;
    zorv_mobile_gen_zorv_uuid(&request, &result);
    const std::string uuid(answer.zorv_uuid, strnlen(answer.zorv_uuid, sizeof answer.zorv_uuid));
    if (uuid.empty()) {
      return report_status(probe_daemon(time), "make a UUID");
    }
    if (!print(uuid + "\n")) {
      return kFailed;
    }
  }
  return kDone;
}

}  // namespace

void add_record_nouns(CLI::App& program, Run* run) {
  for (const RecordKind* kind : kNouns) {
    CLI::App* noun = program.add_subcommand(kind->noun, kind->description);
    noun->require_subcommand(1);
    add_list_verb(*noun, *kind, kind == &kSession ? MakeComputed(session_columns) : MakeComputed(),
                  run);
    add_add_verb(*noun, *kind, run);
    if (kind->remove != nullptr) {
      add_delete_verb(*noun, *kind, run);
    }
    if (kind->clean != nullptr) {
      add_clean_verb(*noun, *kind, run);
    }
  }
}

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
