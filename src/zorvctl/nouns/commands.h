// The nouns of the command line: each function adds its verbs to the program's parser. A verb that
// was chosen stores what is to be done in *run, which main calls once the whole line has been read;
// it returns the exit status.
#pragma once

#include <CLI/App.hpp>

#include <functional>
#include <string>
#include <vector>

#include "record_kind.h"
#include "record_writer.h"

namespace zorvctl {

using Run = std::function<int()>;

// Worked out when the list is about to be shown.
using MakeComputed = std::function<std::vector<ComputedColumn>()>;

// "server-log", "client-log", "event", "session", "device".
void add_record_nouns(CLI::App& program, Run* run);
void add_block_noun(CLI::App& program, Run* run);
void add_uuid_noun(CLI::App& program, Run* run);
void add_option_noun(CLI::App& program, Run* run);
void add_gateway_noun(CLI::App& program, Run* run);

// Verbs that several nouns have.
void add_list_verb(CLI::App& noun, const RecordKind& kind, MakeComputed make_computed, Run* run);
void add_add_verb(CLI::App& noun, const RecordKind& kind, Run* run);
void add_delete_verb(CLI::App& noun, const RecordKind& kind, Run* run);
void add_clean_verb(CLI::App& noun, const RecordKind& kind, Run* run);

}  // namespace zorvctl
