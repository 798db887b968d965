#include <CLI/CLI.hpp>

#include <algorithm>
#include <ctime>
#include <memory>

#include "commands.h"
#include "daemon_answer.h"
#include "delete_records.h"
#include "display_text.h"
#include "exit_status.h"
#include "output_options.h"
#include "table_facts.h"
#include "table_look.h"
#include "value_text.h"
#include "zorv_calls.h"

namespace zorvctl {
namespace {

std::string option_name(const zorv::Field& field) {
  std::string name = std::string("--") + field.name;
  std::replace(name.begin(), name.end(), '_', '-');
  return name;
}

struct AddOption {
  const zorv::Field* field;
  CLI::Option* option;
};

int fill_record(const zorv::TableSchema& table, const std::vector<AddOption>& options,
                void* record) {
  const std::time_t now = std::time(nullptr);
  for (const AddOption& given : options) {
    const zorv::Field& field = *given.field;
    FieldValue value = static_cast<record_uint64>(now);
    if (given.option->count() != 0) {
      std::string error;
      const std::string& text = given.option->results().front();
      if (read_value(field, text, now, Zone::local, &value, &error) != 0) {
        complain("{}: {}", option_name(field), error);
        return kUsage;
      }
    } else if (&field != table.time) {
      continue;
    }
    set(field, record, value);
  }
  return kDone;
}

// What the daemon answers is empty but for a table that answers an insert.
int insert(const zorv::TableSchema& table, const void* record, std::string* ret_answer) {
  if (!answers_an_insert(table)) {
    return zorv_api::insert(table, record);
  }
  zorv_mobile_gen_uuid_data_get uuid{};
  const int status =
      zorv_api::insert_device(*static_cast<const db_device_info_data*>(record), uuid);
  *ret_answer = uuid.zorv_uuid;
  return status;
}

int add_record(const zorv::TableSchema& table, const std::vector<AddOption>& options) {
  std::vector<record_uint64> memory(table.record_size / sizeof(record_uint64) + 1);
  if (fill_record(table, options, memory.data()) != kDone) {
    return kUsage;
  }
  const std::string what = fmt::format("add to {}", table.noun);
  const bool is_answered = answers_an_insert(table);
  TableLook before;
  TableLook after;
  std::string answer;
  int status = is_answered ? kDone : look_or_complain(table, what, before);
  if (status == kDone) {
    status = report_status(insert(table, memory.data(), &answer), what);
  }
  if (status == kDone && !is_answered) {
    status = look_or_complain(table, what, after);
  }
  if (status != kDone) {
    return status;
  }
  const bool kept = is_answered ? !answer.empty() : after.id != before.id || keeps_nothing(table);
  if (!kept) {
    complain("cannot {}: the daemon kept nothing, its log says why", what);
    return kFailed;
  }
  return !is_answered || print(display_text(answer) + "\n") ? kDone : kFailed;
}

// All of them, before the first is deleted.
int read_ids(const zorv::TableSchema& table, const std::vector<std::string>& words,
             std::vector<record_int64>* ret_ids) {
  for (const std::string& word : words) {
    FieldValue id;
    std::string error;
    if (read_value(table.fields[0], word, 0, Zone::utc, &id, &error) != 0) {
      complain("{}", error);
      return kUsage;
    }
    ret_ids->push_back(std::get<record_int64>(id));
  }
  return kDone;
}

// The daemon adds to the statements of these tables and never takes back what it added.
const char* caution(const zorv::TableSchema& table) {
  if (deletes_once(table)) {
    return "Until zorvd is restarted, one delete works: the next delete or clean after it, or a "
           "delete\nafter a clean, fails and may lose the whole list.";
  }
  if (deletes_are_linked(table)) {
    return "\"clean\" deletes one by one. With --force the daemon deletes all at once; until it "
           "is\n"
           "restarted, a delete then deletes EVERY record, which it says and ends with 1, and "
           "after\n"
           "a delete such a clean deletes none. A delete that may be the one after such a clean "
           "needs\n--force.";
  }
  return "";
}

int clean_records(const zorv::TableSchema& table) {
  const std::string what = fmt::format("clean {}", table.noun);
  TableLook newest;
  TableLook oldest;
  // One that cannot be read is cleaned, too.
  int status = look(table, newest);
  status = status == kTableNotRead ? kDone : report_status(status, what);
  if (status == kDone) {
    status = report_status(zorv_api::clean(table), what);
  }
  if (status == kDone) {
    status = look_or_complain(table, what, oldest, upwards());
  }
  // Newer ones came after the clean.
  if (status == kDone && oldest.id && newest.id && *oldest.id <= *newest.id) {
    complain("cannot {}: {} are still there: {}the daemon's log says why", what, table.plural,
             deletes_are_linked(table) ? "after a delete, a clean with --force does nothing until "
                                         "zorvd is restarted; otherwise "
                                       : "");
    return kFailed;
  }
  return status;
}

int clean_slowly(const zorv::TableSchema& table) {
  Progress progress("deleted");
  const int status = clean_one_by_one(table, std::ref(progress));
  progress.clear();
  return status;
}

}  // namespace

void add_add_verb(CLI::App& noun, const zorv::TableSchema& table, Run* run) {
  CLI::App* verb = noun.add_subcommand(
      "add", fmt::format("Record one of the {}, as a VPN server or client would", table.plural));
  auto options = std::make_shared<std::vector<AddOption>>();
  for (const zorv::Field& field : table.fields) {
    if (table.is_given(field)) {
      const std::string hint =
          value_hint(field) + (&field == table.time ? "; now if not given" : "");
      options->push_back({&field, verb->add_option(option_name(field), hint)
                                      ->type_name(field.is_text() ? "TEXT" : "VALUE")
                                      ->required(&field == table.needed)
                                      ->expected(1)});
    }
  }
  verb->footer("What is not given is empty or 0.");
  verb->callback(
      [&table, options, run] { *run = [&table, options] { return add_record(table, *options); }; });
}

void add_delete_verb(CLI::App& noun, const zorv::TableSchema& table, Run* run) {
  CLI::App* verb = noun.add_subcommand("delete", fmt::format("Delete {} by id", table.plural));
  auto words = std::make_shared<std::vector<std::string>>();
  auto options = std::make_shared<DeleteOptions>();
  verb->add_flag("-q,--quiet", options->quiet, "No word about ids that are not there");
  if (deletes_are_linked(table)) {
    verb->add_flag("--force", options->force, "Also where that may delete all of them");
  }
  CLI::Option* id_words = verb->add_option("ids", *words, "Ids, as \"list -o wide\" shows them")
                              ->required()
                              ->type_name("ID");
  if (deletes_once(table)) {
    id_words->expected(1);
  }
  verb->footer(caution(table));
  verb->callback([&table, words, options, run] {
    *run = [&table, words, options] {
      std::vector<record_int64> ids;
      const int status = read_ids(table, *words, &ids);
      return status == kDone ? delete_records(table, ids, *options) : status;
    };
  });
}

void add_clean_verb(CLI::App& noun, const zorv::TableSchema& table, Run* run) {
  CLI::App* verb = noun.add_subcommand("clean", fmt::format("Delete all {}", table.plural));
  auto all = std::make_shared<bool>(false);
  verb->add_flag("--all", *all, "Say that all are meant: without it nothing is deleted");
  auto force = std::make_shared<bool>(false);
  if (deletes_are_linked(table)) {
    verb->add_flag("--force", *force, "All at once, whatever that makes of a later delete");
  }
  verb->footer(caution(table));
  verb->callback([&table, all, force, run] {
    *run = [&table, all, force] {
      if (!*all) {
        complain("clean deletes all {}: say --all if that is meant", table.plural);
        return static_cast<int>(kUsage);
      }
      return deletes_are_linked(table) && !*force ? clean_slowly(table) : clean_records(table);
    };
  });
}

}  // namespace zorvctl
