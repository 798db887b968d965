#include <CLI/CLI.hpp>

#include "commands.h"

namespace zorvctl {
namespace {

// A verb more: its row here and a file of its own.
struct Verb {
  const char* zorv::TableMethods::*method;  // a table without it does not have the verb
  AddVerb add;
  AddVerb add_to_block = add;
};
using Methods = zorv::TableMethods;
constexpr Verb kVerbs[] = {
    {&Methods::query, add_list_verb},
    {&Methods::insert, add_add_verb, add_check_and_fail_verbs},
    {&Methods::remove, add_delete_verb, add_remove_verb},
    {&Methods::clean, add_clean_verb},
};

}  // namespace

void add_table_nouns(CLI::App& program, Run* run) {
  for (const zorv::TableSchema* table : zorv::kTables) {
    CLI::App* noun = program.add_subcommand(table->noun, table->description);
    noun->require_subcommand(1);
    const bool is_block = table == &zorv::kUserBlock;
    for (const Verb& verb : kVerbs) {
      if (table->methods.*verb.method != nullptr) {
        (is_block ? verb.add_to_block : verb.add)(*noun, *table, run);
      }
    }
    if (is_block) {
      add_why_verb(*noun, run);
      add_policy_verb(*noun, run);
    }
  }
}

}  // namespace zorvctl
