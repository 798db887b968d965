// The nouns of the command line: each function adds its verbs to the program's parser. A verb that
// was chosen stores what is to be done in *run, which main calls once the whole line has been read;
// it returns the exit status.
#pragma once

#include <CLI/App.hpp>

#include <functional>
#include <string>

#include "zorv_schema.h"

namespace zorvctl {

using Run = std::function<int()>;

// One for each table, with the verbs for which it has methods.
void add_table_nouns(CLI::App& program, Run* run);
void add_sessions_noun(CLI::App& program, Run* run);
void add_stats_noun(CLI::App& program, Run* run);
void add_report_noun(CLI::App& program, Run* run);
void add_spool_noun(CLI::App& program, Run* run);
void add_uuid_noun(CLI::App& program, Run* run);
void add_option_noun(CLI::App& program, Run* run);
void add_gateway_noun(CLI::App& program, Run* run);
void add_log_noun(CLI::App& program, Run* run);

// The verbs of tables.
using AddVerb = void (*)(CLI::App& noun, const zorv::TableSchema& table, Run* run);
void add_list_verb(CLI::App& noun, const zorv::TableSchema& table, Run* run);
void add_add_verb(CLI::App& noun, const zorv::TableSchema& table, Run* run);
void add_delete_verb(CLI::App& noun, const zorv::TableSchema& table, Run* run);
void add_clean_verb(CLI::App& noun, const zorv::TableSchema& table, Run* run);

// Blocks are counted and forgotten by a user's name, not added and deleted.
void add_check_and_fail_verbs(CLI::App& noun, const zorv::TableSchema& table, Run* run);
void add_remove_verb(CLI::App& noun, const zorv::TableSchema& table, Run* run);
// False after a complaint where no user name is so long.
bool is_user_name(const std::string& word);
void add_why_verb(CLI::App& noun, Run* run);
void add_policy_verb(CLI::App& noun, Run* run);

}  // namespace zorvctl
