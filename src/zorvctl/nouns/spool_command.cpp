#include <pwd.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstring>
#include <ctime>
#include <memory>
#include <thread>

#include "commands.h"
#include "daemon_answer.h"
#include "decimal_option.h"
#include "display_text.h"
#include "exit_status.h"
#include "output_options.h"
#include "spool.h"
#include "spool_reader.h"
#include "zorv_calls.h"

namespace zorvctl {
namespace {

using zorv::Meaning;
using zorv::spool::Entry;
using zorv::spool::kFolder;
using zorv::spool::Record;
using zorv::spool::SpoolReader;

// As the writers take it.
struct WaitingRow {
  record_uint64 time;
  char log[16];
  int action;
  char username[kTextSize];
  char owner[64];
  record_uint64 age;
  char file[96];
};

constexpr zorv::CodeWord kActions[] = {{zorv::kLoginFail, "Login Fail"},
                                       {zorv::kLoginOk, "Login OK"},
                                       {zorv::kLogout, "Logout"},
                                       {zorv::kGetGeolocation, "Get geolocation"}};

constexpr zorv::Field kFields[] = {
    zorv::field<&WaitingRow::time>("time", "TIME", Meaning::time),
    zorv::field<&WaitingRow::log>("log", "LOG", Meaning::text),
    zorv::code<&WaitingRow::action>("action", "ACTION", kActions),
    zorv::field<&WaitingRow::username>("username", "USER", Meaning::text),
    zorv::field<&WaitingRow::owner>("owner", "OWNER", Meaning::text),
    zorv::field<&WaitingRow::age>("age", "AGE", Meaning::seconds),
    zorv::field<&WaitingRow::file>("file", nullptr, Meaning::text),
};

void leave(const std::string& path, const char* why) {
  complain("{}/{} is left where it is: {}", kFolder, display_text(path), why);
}

int cannot_open(int error) {
  if (error == EWOULDBLOCK) {
    complain("somebody else is delivering what waits in {}", kFolder);
  } else if (error == EPERM) {
    complain("{} does not count: others than root may write to it", kFolder);
  } else {
    complain("cannot open {}: {}", kFolder, std::strerror(error));
  }
  return kFailed;
}

std::string owner_name(uid_t owner) {
  const passwd* user = getpwuid(owner);
  return user != nullptr ? user->pw_name : std::to_string(owner);
}

template <class Value>
Value value_of(const Record& record, const char* field) {
  return std::get<Value>(zorv::get(*record.table->find(field), record.bytes.data()));
}

WaitingRow row_of(const Entry& entry, const Record& record, uint64_t now) {
  WaitingRow row{};
  row.time = value_of<record_uint64>(record, "time");
  zorv::copy_text(row.log, record.table->noun);
  row.action = static_cast<int>(value_of<record_int64>(record, "action"));
  zorv::copy_text(row.username, value_of<std::string_view>(record, "username"));
  zorv::copy_text(row.owner, owner_name(entry.owner));
  row.age = now - std::min(entry.time(), now);
  zorv::copy_text(row.file, fmt::format("{}/{}", kFolder, entry.path()));
  return row;
}

int list_waiting(const OutputOptions& options) {
  SpoolReader spool(leave);
  if (const int error = spool.open_to_list(); error != 0) {
    return cannot_open(error);
  }
  std::string out;
  const auto writer =
      find_format(options.output)->make_writer({kFields, output_style(options)}, &out);
  const auto now = static_cast<uint64_t>(std::time(nullptr));
  for (const Entry& entry : spool.entries()) {
    Record record;
    if (spool.read(entry, record)) {
      const WaitingRow row = row_of(entry, record, now);
      writer->add(&row);
    }
  }
  writer->end_page();
  return print_paged(out, options.no_pager);
}

using Clock = std::chrono::steady_clock;

// A daemon that has just been started may not listen yet.
int deliver(const Record& record, Clock::time_point patience) {
  constexpr std::chrono::milliseconds kPause{50};
  int status = zorv_api::insert(*record.table, record.bytes.data());
  while (status == KX_NOT_READY && Clock::now() < patience) {
    std::this_thread::sleep_for(kPause);
    status = zorv_api::insert(*record.table, record.bytes.data());
  }
  return status;
}

int deliver_waiting(unsigned wait_s) {
  SpoolReader spool(leave);
  if (const int error = spool.open_to_deliver(); error != 0) {
    return cannot_open(error);
  }
  const Clock::time_point patience = Clock::now() + std::chrono::seconds(wait_s);
  size_t delivered = 0;
  int result = kDone;
  for (const Entry& entry : spool.entries()) {
    Record record;
    if (!spool.read(entry, record)) {
      continue;
    }
    result = report_status(deliver(record, patience), "deliver what waits");
    if (result != kDone) {
      break;
    }
    ++delivered;
    // What stays would be delivered again and again.
    if (const int error = spool.remove(entry); error != 0 && error != ENOENT) {
      complain("cannot remove {}/{}: {}", kFolder, entry.path(), std::strerror(error));
      result = kFailed;
      break;
    }
  }
  if (delivered != 0) {
    spool.sync_removals();
    print(fmt::format("{} record{} delivered\n", delivered, delivered == 1 ? "" : "s"));
  }
  return result;
}

}  // namespace

void add_spool_noun(CLI::App& program, Run* run) {
  CLI::App* noun = program.add_subcommand("spool", "Records that wait because the daemon was away");
  noun->require_subcommand(1);

  CLI::App* list = noun->add_subcommand("list", "Show what waits, the oldest first");
  auto options = std::make_shared<OutputOptions>();
  add_output_options(*list, options.get());
  list->footer(
      "OWNER is the user whose server could not deliver the record; AGE how long it has waited.");
  list->callback([options, run] { *run = [options] { return list_waiting(*options); }; });

  CLI::App* deliver = noun->add_subcommand(
      "deliver", "Hand what waits to the daemon, the oldest first, and make users' folders");
  auto wait_s = std::make_shared<unsigned>(0);
  deliver
      ->add_option("--wait", *wait_s,
                   "How long a daemon that does not run is waited for (0 if not given)")
      ->check(CLI::Range(0U, 3600U))
      ->transform(decimal())
      ->type_name("SECONDS");
  deliver->footer(
      "For root: the daemon's service does it at each start. A file counts only if its owner may\n"
      "call the daemon; what does not count is named and left where it is. Whoever\n"
      "/etc/config/kxbus/zorvd.allow names has a folder in the spool afterwards.");
  deliver->callback([wait_s, run] { *run = [wait_s] { return deliver_waiting(*wait_s); }; });
}

}  // namespace zorvctl
