#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>
#include <new>

#include "commands.h"
#include "daemon_answer.h"
#include "delete_records.h"
#include "display_text.h"
#include "exit_status.h"
#include "table_look.h"
#include "value_text.h"

namespace zorvctl {
namespace {

std::string option_name(const Column& column) {
  std::string name = std::string("--") + column.name;
  std::replace(name.begin(), name.end(), '_', '-');
  return name;
}

// A zeroed record of a kind, aligned for any.
class RecordMemory {
 public:
  explicit RecordMemory(const RecordKind& kind) : memory_(std::calloc(1, kind.record_size)) {
    if (memory_ == nullptr) {
      throw std::bad_alloc();
    }
  }
  void* get() const { return memory_.get(); }

 private:
  std::unique_ptr<void, FreeMemory> memory_;
};

struct AddOption {
  const Column* column;
  CLI::Option* option;
};

int add_record(const RecordKind& kind, const std::vector<AddOption>& options) {
  const RecordMemory record(kind);
  const std::time_t now = std::time(nullptr);
  for (const AddOption& given : options) {
    const Column& column = *given.column;
    if (given.option->count() == 0) {
      if (column.kind == Kind::time && kind.time_column == std::string_view(column.name)) {
        column.set(record.get(), static_cast<unsigned long long>(now));
      }
      continue;
    }
    Value value;
    std::string error;
    const std::string& text = given.option->results().front();
    if (read_value(column, text, now, Zone::local, &value, &error) != 0) {
      complain("{}: {}", option_name(column), error);
      return kUsage;
    }
    column.set(record.get(), value);
  }
  const std::string what = fmt::format("add to {}", kind.noun);
  TableLook before;
  if (!kind.answers_add) {
    before = look(kind);
    if (const int status = report_query_end(before.end, what.c_str()); status != kDone) {
      return status;
    }
  }
  std::string answer;
  if (const int status = report_status(kind.add(record.get(), &answer), what.c_str());
      status != kDone) {
    return status;
  }
  bool kept = !answer.empty();
  if (!kind.answers_add) {
    const TableLook after = look(kind);
    if (const int status = report_query_end(after.end, what.c_str()); status != kDone) {
      return status;
    }
    kept = after.id != before.id || kind.columns.empty();
  }
  if (!kept) {
    complain("cannot {}: the daemon kept nothing, its log says why", what);
    return kFailed;
  }
  return !kind.answers_add || print(display_text(answer) + "\n") ? kDone : kFailed;
}

// All of them, before the first is deleted.
int read_ids(const RecordKind& kind, const std::vector<std::string>& words,
             std::vector<long long>* ret_ids) {
  for (const std::string& word : words) {
    Value id;
    std::string error;
    if (read_value(kind.columns[0], word, 0, Zone::utc, &id, &error) != 0) {
      complain("{}", error);
      return kUsage;
    }
    ret_ids->push_back(std::get<long long>(id));
  }
  return kDone;
}

std::string caution(const RecordKind& kind) {
  return kind.delete_caution != nullptr ? kind.delete_caution : "";
}

int clean_records(const RecordKind& kind) {
  const std::string what = fmt::format("clean {}", kind.noun);
  const TableLook newest = look(kind);
  if (newest.end == QueryEnd::late || newest.end == QueryEnd::unanswered) {
    return report_query_end(newest.end, what.c_str());
  }
  if (const int status = report_status(kind.clean(), what.c_str()); status != kDone) {
    return status;
  }
  RecordQuery query;
  query.descending = false;
  const TableLook oldest = look(kind, query);
  if (const int status = report_query_end(oldest.end, what.c_str()); status != kDone) {
    return status;
  }
  // Newer ones came after the clean.
  if (oldest.id && newest.id && *oldest.id <= *newest.id) {
    const bool deaf_after_delete = kind.delete_caution != nullptr && !kind.deletes_once;
    complain("cannot {}: {} are still there{}, the daemon's log says why", what, kind.plural,
             deaf_after_delete
                 ? ": after a delete, a clean does nothing until zorvd is restarted; without one"
                 : "");
    return kFailed;
  }
  return kDone;
}

}  // namespace

void add_add_verb(CLI::App& noun, const RecordKind& kind, Run* run) {
  CLI::App* verb = noun.add_subcommand(
      "add", fmt::format("Record one of the {}, as a VPN server or client would", kind.plural));
  auto options = std::make_shared<std::vector<AddOption>>();
  for (const Column& column : kind.columns) {
    if (column.filled == Filled::by_caller) {
      const bool is_moment = kind.time_column == std::string_view(column.name);
      const std::string hint = value_hint(column) + (is_moment ? "; now if not given" : "");
      options->push_back({&column, verb->add_option(option_name(column), hint)
                                       ->type_name(column.kind == Kind::text ? "TEXT" : "VALUE")
                                       ->expected(1)});
    }
  }
  verb->footer("What is not given is empty or 0.");
  verb->callback(
      [&kind, options, run] { *run = [&kind, options] { return add_record(kind, *options); }; });
}

void add_delete_verb(CLI::App& noun, const RecordKind& kind, Run* run) {
  CLI::App* verb = noun.add_subcommand("delete", fmt::format("Delete {} by id", kind.plural));
  auto words = std::make_shared<std::vector<std::string>>();
  auto quiet = std::make_shared<bool>(false);
  verb->add_flag("-q,--quiet", *quiet, "No word about ids that are not there");
  CLI::Option* id_words =
      verb->add_option("ids", *words, "Ids, as \"list\" shows them")->required()->type_name("ID");
  if (kind.deletes_once) {
    id_words->expected(1);
  }
  verb->footer(caution(kind));
  verb->callback([&kind, words, quiet, run] {
    *run = [&kind, words, quiet] {
      std::vector<long long> ids;
      const int status = read_ids(kind, *words, &ids);
      return status == kDone ? delete_records(kind, ids, *quiet) : status;
    };
  });
}

void add_clean_verb(CLI::App& noun, const RecordKind& kind, Run* run) {
  CLI::App* verb = noun.add_subcommand("clean", fmt::format("Delete all {}", kind.plural));
  auto all = std::make_shared<bool>(false);
  verb->add_flag("--all", *all, "Say that all are meant: without it nothing is deleted");
  verb->footer(caution(kind));
  verb->callback([&kind, all, run] {
    *run = [&kind, all] {
      if (!*all) {
        complain("clean deletes all {}: say --all if that is meant", kind.plural);
        return static_cast<int>(kUsage);
      }
      return clean_records(kind);
    };
  });
}

}  // namespace zorvctl
